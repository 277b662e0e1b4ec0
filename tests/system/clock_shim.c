// Preloaded into the daemon by the clock test: the wall clock runs as many seconds ahead of the
// real one as the file CLOCK_SHIM_FILE says (read at every reading, so the test can make it jump).
// On a 32-bit target the 32-bit entry points fail with EOVERFLOW once the time no longer fits, as
// the C library's own do after 2038-01-19 03:14:07 UTC, and the 64-bit ones give the time. The file
// defines the target's own entry points, so it is compiled with the target's own time_t.
#undef _TIME_BITS
#undef _FILE_OFFSET_BITS
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>

#if __TIMESIZE == 64
typedef struct timespec ts64;
typedef struct timeval tv64;
#define GETTIME clock_gettime
#define GETTIMEOFDAY gettimeofday
#else
typedef struct {
    int64_t tv_sec;
    int32_t tv_nsec, pad;
} ts64;
typedef struct {
    int64_t tv_sec, tv_usec;
} tv64;
#define GETTIME __clock_gettime64
#define GETTIMEOFDAY __gettimeofday64
#endif
#define NAME(f) NAME_(f)
#define NAME_(f) #f

__attribute__((constructor)) static void shim_init(void)
{
    unsetenv("LD_PRELOAD"); // the daemon's children are not to be moved, and may be native
}

int GETTIME(clockid_t id, ts64* ts)
{
    static int (*real)(clockid_t, ts64*);
    if (!real)
        real = (int (*)(clockid_t, ts64*))dlsym(RTLD_NEXT, NAME(GETTIME));
    const int r = real(id, ts);
    const char* path = getenv("CLOCK_SHIM_FILE");
    FILE* f =
        r == 0 && (id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE) && path ? fopen(path, "re") : NULL;
    long long ahead = 0;
    if (f && fscanf(f, "%lld", &ahead) == 1)
        ts->tv_sec += ahead;
    if (f)
        fclose(f);
    return r;
}

int GETTIMEOFDAY(tv64* restrict tv, void* restrict tz)
{
    ts64 ts;
    (void)tz;
    if (GETTIME(CLOCK_REALTIME, &ts) != 0)
        return -1;
    tv->tv_sec = ts.tv_sec;
    tv->tv_usec = ts.tv_nsec / 1000;
    return 0;
}

#if __TIMESIZE == 32
// The 32-bit entry points: the 64-bit reading, refused when it does not fit.
static int fits(int64_t seconds)
{
    if (seconds == (time_t)seconds)
        return 1;
    errno = EOVERFLOW;
    return 0;
}

int clock_gettime(clockid_t id, struct timespec* ts)
{
    ts64 t;
    if (GETTIME(id, &t) != 0 || !fits(t.tv_sec))
        return -1;
    ts->tv_sec = (time_t)t.tv_sec;
    ts->tv_nsec = t.tv_nsec;
    return 0;
}

int gettimeofday(struct timeval* restrict tv, void* restrict tz)
{
    tv64 t;
    if (GETTIMEOFDAY(&t, tz) != 0 || !fits(t.tv_sec))
        return -1;
    tv->tv_sec = (time_t)t.tv_sec;
    tv->tv_usec = t.tv_usec;
    return 0;
}
#endif
