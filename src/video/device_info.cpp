#include "video/device_info.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

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

bool device_read_info(int socket, char* name, int* size)
{
    // Zeroed: the socket layer counts a short final read as complete, so the tail of the record
    // may never be written.
    uint8_t record[DEVICE_INFO_SIZE] = {};
    if (sock_recv_all(socket, record, DEVICE_INFO_SIZE) < DEVICE_INFO_SIZE) {
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
