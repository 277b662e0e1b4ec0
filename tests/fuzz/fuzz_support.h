// What the fuzz targets share: the check that ends a run, a quiet console, the headless host
// platform, and a phone that writes into a socket pair.
#pragma once

#include <QCoreApplication>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

// A broken oracle (or set-up) ends the run, and the fuzzer keeps the input.
inline void check(bool ok)
{
    if (!ok)
        abort();
}

// Once per process: SIGPIPE ignored and a quiet console (the daemon's lines go to standard output)
// as in the daemon, a headless host with a codec lock of its own, and the application object.
inline QCoreApplication* fuzz_setup()
{
    static int argc = 1;
    static char* argv[] = {const_cast<char*>("orvane-fuzz"), nullptr};
    static QCoreApplication* const app = [] {
        signal(SIGPIPE, SIG_IGN);
        check(freopen("/dev/null", "w", stdout) != nullptr);
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
        setenv("ORVANE_HOST_CODEC_LOCK",
               ("/tmp/orvane-fuzz-codec-" + std::to_string(getpid()) + ".lock").c_str(), 1);
        setenv("ORVANE_HOST_DISPLAY", "headless", 1);
        return new QCoreApplication(argc, argv);
    }();
    return app;
}

// A socket pair: the daemon reads fds[0], the phone writes fds[1]. Given reads, the phone sends
// them from its own thread and then closes its writing side; both ends are closed at the end.
struct Phone {
    int fds[2] = {-1, -1};
    std::atomic<bool> reader_gone{false};
    std::thread thread;
    explicit Phone(int type) { check(socketpair(AF_UNIX, type, 0, fds) == 0); }
    Phone(int type, const std::vector<std::pair<const uint8_t*, size_t>>& reads) : Phone(type)
    {
        thread = std::thread([this, reads] {
            for (size_t i = 0; i < reads.size() && send(reads[i].first, reads[i].second); ++i) {
            }
            shutdown(fds[1], SHUT_WR);
        });
    }
    // One read (one datagram, even an empty one); waits while the socket is full, until the reader has gone.
    bool send(const uint8_t* data, size_t len)
    {
        size_t done = 0;
        do {
            const ssize_t n = ::send(fds[1], data + done, len - done, MSG_NOSIGNAL | MSG_DONTWAIT);
            done += n > 0 ? size_t(n) : 0;
            if (n < 0 && ((errno != EAGAIN && errno != ENOBUFS) || reader_gone))
                return false;
            pollfd p = {fds[1], POLLOUT, 0};
            poll(&p, 1, n < 0 ? 10 : 0); // waits for room only when the socket was full
        } while (done < len);
        return true;
    }
    ~Phone()
    {
        reader_gone = true;
        if (thread.joinable())
            thread.join();
        close(fds[0]);
        close(fds[1]);
    }
};
