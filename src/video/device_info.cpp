#include "video/device_info.h"
#include "base/clock.h"

#include <algorithm>
#include <cstdio>
#include <cerrno>
#include <cstring>
#include <mutex>

#include <poll.h>
#include <sys/socket.h>

#include "net/sock.h"

namespace {

std::mutex g_last_mutex;
char g_last_name[DEVICE_NAME_FIELD];
uint64_t g_reads = 0;

} // namespace

void device_info_parse(const uint8_t* record, char* name, int* size)
{
    // The name field is cut at 63 characters whatever the phone put in its last byte.
    char text[DEVICE_NAME_FIELD];
    std::memcpy(text, record, DEVICE_NAME_FIELD);
    text[DEVICE_NAME_FIELD - 1] = '\0';
    std::memcpy(name, text, std::strlen(text) + 1);
    size[0] = record[64] * 256 + record[65];
    size[1] = record[66] * 256 + record[67];
}

namespace {

// The socket's receive time-out bounds the whole record, not each piece of it: a phone that
// dribbles a byte at a time must not stretch the wait. 0 (no time-out) waits without end.
int64_t record_deadline(int socket)
{
    const int timeout_ms = sock_recv_timeout(socket);
    return timeout_ms > 0 ? monotonic_ms() + timeout_ms : -1;
}

// Exactly len bytes, or false: unlike the stream's reads, a record cut short by the phone closing
// must not pass for a whole one.
bool recv_record(int socket, uint8_t* record, size_t len)
{
    const int64_t deadline = record_deadline(socket);
    size_t got = 0;
    while (got < len) {
        if (deadline >= 0) {
            const int64_t left = deadline - monotonic_ms();
            pollfd pfd = {socket, POLLIN, 0};
            const int ready = left > 0 ? poll(&pfd, 1, static_cast<int>(left)) : 0;
            if (ready < 0 && errno == EINTR)
                continue;
            if (ready <= 0)
                return false;
        }
        const ssize_t r = recv(socket, record + got, len - got, 0);
        if (r > 0)
            got += static_cast<size_t>(r);
        else if (r == 0 || (errno != EINTR && errno != EAGAIN))
            return false;
        else if (errno == EAGAIN && deadline >= 0 && monotonic_ms() >= deadline)
            return false;
    }
    return true;
}

} // namespace

bool device_read_info(int socket, char* name, int* size)
{
    uint8_t record[DEVICE_INFO_SIZE];
    if (!recv_record(socket, record, DEVICE_INFO_SIZE)) {
        std::puts("Could not retrieve device information");
        return false;
    }
    device_info_parse(record, name, size);
    std::lock_guard<std::mutex> lock(g_last_mutex);
    std::memcpy(g_last_name, name, std::strlen(name) + 1);
    ++g_reads;
    return true;
}

uint64_t device_info_last_name(char* name, size_t size)
{
    std::lock_guard<std::mutex> lock(g_last_mutex);
    if (size > 0) {
        const size_t length = std::min(std::strlen(g_last_name), size - 1);
        std::memcpy(name, g_last_name, length);
        name[length] = '\0';
    }
    return g_reads;
}
