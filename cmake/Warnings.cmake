# Warnings for everything below this project. As a subproject it is silent: its warnings are not the consumer's business.

function(recvault_add_warnings)
    if(PROJECT_IS_TOP_LEVEL AND CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
        add_compile_options(${ARGN})
    endif()
endfunction()

recvault_add_warnings(
    -Wall -Wextra -Wpedantic -Wshadow -Wcast-align -Wcast-qual -Wformat=2 -Wundef
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
    $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
    $<$<COMPILE_LANGUAGE:CXX>:-Wdeprecated-copy-dtor>
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
    $<$<COMPILE_LANGUAGE:CXX>:-Wextra-semi>)

if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # The beta part checks the order in which locks are declared to be taken.
    recvault_add_warnings($<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety> $<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety-beta>)
endif()

if(RECVAULT_WERROR)
    recvault_add_warnings(-Werror)
endif()
