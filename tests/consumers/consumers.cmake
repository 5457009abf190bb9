# The same program twice, against whatever gives recvault::recvault.

add_executable(consumer_c "${CMAKE_CURRENT_LIST_DIR}/all_functions.c")
set_target_properties(consumer_c PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON)
add_executable(consumer_cpp "${CMAKE_CURRENT_LIST_DIR}/all_functions.cpp")
set_target_properties(consumer_cpp PROPERTIES CXX_STANDARD 20 CXX_STANDARD_REQUIRED ON)

foreach(consumer IN ITEMS consumer_c consumer_cpp)
    target_link_libraries(${consumer} PRIVATE recvault::recvault)
    target_compile_options(${consumer} PRIVATE -Wall -Wextra -Werror)
endforeach()
