// The time of day that the code under test sees: time(2) of the executable takes the place of the C
// library's.
#pragma once
#include <ctime>

// 0 = the real time.
extern time_t testNow;
