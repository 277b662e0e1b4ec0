// What the fuzz targets share: a quiet console, the headless host platform, and a phone that
// writes into a socket pair.
#pragma once

#include <QCoreApplication>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

// The daemon's lines go to standard output; keep the fuzzer's console readable.
inline void fuzz_quiet()
{
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
}

// A headless host with a codec lock of its own, and the application object the events go to.
inline QCoreApplication* fuzz_host_app(int* argc, char*** argv)
{
    fuzz_quiet();
    const std::string lock = "/tmp/orvane-fuzz-codec-" + std::to_string(getpid()) + ".lock";
    setenv("ORVANE_HOST_CODEC_LOCK", lock.c_str(), 1);
    setenv("ORVANE_HOST_DISPLAY", "headless", 1);
    unsetenv("ORVANE_HOST_FAULTS");
    return new QCoreApplication(*argc, *argv);
}

// Sends len bytes (one message on a datagram socket, even an empty one) as a phone would. While the
// socket is full it waits, unless the reader is gone and no longer draining it; false then.
inline bool phone_send(int fd, const uint8_t* data, size_t len, const std::function<bool()>& reader_gone)
{
    size_t done = 0;
    do {
        const ssize_t n = send(fd, data + done, len - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if ((errno != EAGAIN && errno != EWOULDBLOCK && errno != ENOBUFS) || reader_gone())
            return false;
        pollfd p = {fd, POLLOUT, 0};
        poll(&p, 1, 10);
    } while (done < len);
    return true;
}
