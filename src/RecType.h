// Record types: a number 1 to 8 at the interface, a mask of 7 bits inside. The exported layer alone translates.
#pragma once

#include <bit>
#include <cstdint>

#include "RecFileNode.h"

namespace kelm_recvault {

constexpr int32_t kMaxRecType = 8;  // all types together

constexpr uint32_t rectype_to_mask(int32_t number) {
    if (number < 1 || number > kMaxRecType) return 1;
    return number == kMaxRecType ? kAllRecTypes : 1U << (number - 1);
}

// The lowest type of a mask.
constexpr uint32_t mask_to_rectype(uint32_t mask) {
    if (mask == 0 || mask > kAllRecTypes) return 1;
    return static_cast<uint32_t>(std::countr_zero(mask)) + 1;
}

}  // namespace kelm_recvault
