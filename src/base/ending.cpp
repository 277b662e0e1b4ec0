#include "base/ending.h"

#include <atomic>

namespace {
std::atomic<bool> g_ending{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");
} // namespace

void daemon_ending_begin()
{
    g_ending.store(true, std::memory_order_relaxed);
}

bool daemon_ending()
{
    return g_ending.load(std::memory_order_relaxed);
}

bool EndingDeadline::due(int64_t now_ms)
{
    if (!cut_ && daemon_ending() && now_ms + ENDING_WAIT_MS < deadline_) {
        deadline_ = now_ms + ENDING_WAIT_MS;
        cut_ = true;
    }
    return now_ms >= deadline_;
}
