// How a failure reaches the user.
#pragma once

#include <stdexcept>

namespace recvault_tool {

// What the user can mend: shown as one line that says what to do, exit code 1.
class Failure : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace recvault_tool
