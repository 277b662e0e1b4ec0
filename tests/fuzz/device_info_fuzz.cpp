// The 68-byte device information record as a phone sends it, read from a real socket pair: the
// whole input is what the phone wrote before it closed its end.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "video/device_info.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        abort();
    // A writer thread, so that inputs larger than the socket buffer cannot block the reader.
    std::thread phone([&] {
        size_t done = 0;
        while (done < size) {
            const ssize_t n = send(fds[1], data + done, size - done, MSG_NOSIGNAL);
            if (n <= 0)
                break;
            done += static_cast<size_t>(n);
        }
        shutdown(fds[1], SHUT_WR);
    });

    // The service's presets: a failed read must leave them as they are.
    char name[128];
    memset(name, 0x5A, sizeof name);
    int picture[2] = {1280, 720};
    const bool ok = device_read_info(fds[0], name, picture);

    if (size == 0) {
        // Nothing before the close: a failed read, the presets untouched.
        if (ok || picture[0] != 1280 || picture[1] != 720)
            abort();
        for (char c : name)
            if (c != 0x5A)
                abort();
    } else {
        // The socket layer counts a read cut short by the close as complete: the record is what
        // arrived, the rest zeros.
        if (!ok)
            abort();
        uint8_t record[DEVICE_INFO_SIZE] = {};
        memcpy(record, data, size < sizeof record ? size : sizeof record);
        // At most 63 characters, exactly the record's text up to its first zero.
        const size_t len = strnlen(reinterpret_cast<const char*>(record), DEVICE_NAME_FIELD - 1);
        if (memcmp(name, record, len) != 0 || name[len] != '\0')
            abort();
        if (picture[0] != (record[64] << 8 | record[65]) || picture[1] != (record[66] << 8 | record[67]))
            abort();
        // Nothing past the record was consumed: the first video packet is still on the socket.
        const size_t left = size > DEVICE_INFO_SIZE ? size - DEVICE_INFO_SIZE : 0;
        uint8_t rest[512];
        size_t got = 0;
        for (;;) {
            const ssize_t n = recv(fds[0], rest, sizeof rest, 0);
            if (n <= 0)
                break;
            if (got + static_cast<size_t>(n) > left ||
                memcmp(rest, data + DEVICE_INFO_SIZE + got, static_cast<size_t>(n)) != 0)
                abort();
            got += static_cast<size_t>(n);
        }
        if (got != left)
            abort();
    }
    shutdown(fds[0], SHUT_RDWR);
    phone.join();
    close(fds[0]);
    close(fds[1]);
    return 0;
}
