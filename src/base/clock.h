// The monotonic clock, read one way for the whole daemon: deadlines, durations, log time stamps and
// the picture log. Any thread; never fails on Linux, never jumps.
#pragma once

#include <cstdint>
#include <ctime>

inline int64_t monotonic_ns()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

inline int64_t monotonic_us()
{
    return monotonic_ns() / 1000;
}

inline int64_t monotonic_ms()
{
    return monotonic_ns() / 1000000;
}
