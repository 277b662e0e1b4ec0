// The window's input on its way to the main thread: the presenter thread appends to a short queue
// and rings an eventfd; the main thread takes the events when the descriptor wakes it. The
// presenter never waits for the main thread, which may be busy with a link start for seconds: while
// the queue is full, a move replaces the last one when that is a move too, and only moves are ever
// dropped.
#include "platform/host/host_platform.h"
#include "platform/input.h"

#include <cstdint>
#include <cstdio>
#include <deque>
#include <mutex>
#include <sys/eventfd.h>
#include <unistd.h>

namespace orvane_host {

namespace {

constexpr size_t INPUT_QUEUE_LIMIT = 256;

struct InputQueue {
    std::mutex mutex;
    std::deque<display_input> events;
    int fd = -1;
};

InputQueue& queue()
{
    // Created on first use and kept for the process: the descriptor must not change under the
    // main thread's watch.
    static InputQueue* q = [] {
        auto* created = new InputQueue;
        created->fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (created->fd < 0)
            perror("host display: eventfd");
        return created;
    }();
    return *q;
}

bool is_move(const display_input& e)
{
    return e.kind == DISPLAY_INPUT_TOUCH && e.action == 2;
}

} // namespace

bool input_pointer_enabled()
{
    // An HMI that owns the touchscreen turns the window's own pointer and keys off.
    return env_string("ORVANE_HOST_INPUT", "1") != "0";
}

void input_push(const display_input& event)
{
    InputQueue& q = queue();
    std::lock_guard<std::mutex> lock(q.mutex);
    if (q.fd < 0)
        return;
    if (is_move(event) && q.events.size() >= INPUT_QUEUE_LIMIT) {
        // Behind by a whole queue: where the finger is now matters more than the way it went.
        if (is_move(q.events.back()))
            q.events.back() = event;
        return;
    }
    q.events.push_back(event);
    const uint64_t one = 1;
    if (write(q.fd, &one, sizeof one) < 0) {
        // The counter cannot overflow at this rate; a failed write leaves the wake-up pending.
    }
}

} // namespace orvane_host

extern "C" int display_input_fd(void)
{
    return orvane_host::queue().fd;
}

extern "C" bool display_input_take(display_input* out)
{
    orvane_host::InputQueue& q = orvane_host::queue();
    std::lock_guard<std::mutex> lock(q.mutex);
    if (q.events.empty()) {
        uint64_t count;
        if (read(q.fd, &count, sizeof count) < 0) {
            // Nothing was pending: the descriptor is quiet already.
        }
        return false;
    }
    *out = q.events.front();
    q.events.pop_front();
    return true;
}
