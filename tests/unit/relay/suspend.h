// The system's time in suspend, as a test that is linked with --wrap=clock_gettime wants it reported.
#ifndef TAVOR_TEST_SUSPEND_H
#define TAVOR_TEST_SUSPEND_H

#include <ctime>

inline time_t slept_s = 0;

#endif
