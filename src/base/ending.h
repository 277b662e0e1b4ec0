// The daemon is ending: an end signal has arrived. From then on every wait on a child process or on
// the phone is cut short, so that a start in progress and the teardown after it fit the time a
// supervisor gives the daemon to stop, whatever hangs.
#pragma once

#include <cstdint>

// Longest a wait may still take once the daemon is ending.
constexpr int64_t ENDING_WAIT_MS = 1000;

// Any thread, and signal handlers (async-signal-safe): the daemon is ending.
void daemon_ending_begin();
// Any thread; takes no lock.
bool daemon_ending();

// A wait's deadline on the monotonic clock (ms), shortened once the daemon is ending: the
// waiting thread calls `due` on every round. Any thread.
class EndingDeadline
{
public:
    EndingDeadline(int64_t now_ms, int64_t timeout_ms) : deadline_(now_ms + timeout_ms) {}
    // True when the wait is over at now_ms.
    bool due(int64_t now_ms);

private:
    int64_t deadline_;
    bool cut_ = false;
};
