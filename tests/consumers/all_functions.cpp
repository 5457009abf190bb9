#include "all_functions.c"  // the same program, to be compiled as C++
