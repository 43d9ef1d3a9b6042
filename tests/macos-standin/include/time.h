// What <time.h> has on macOS beyond this system's own.

#ifndef VARN_MACOS_STANDIN_TIME_H
#define VARN_MACOS_STANDIN_TIME_H

#include_next <time.h>

#define CLOCK_UPTIME_RAW 8

extern "C" unsigned long clock_gettime_nsec_np(clockid_t clock);

#endif
