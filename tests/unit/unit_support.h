// What the unit tests share: the application object the daemon's events go to, stdout capture,
// an event recorder and a bounded wait for a condition.
#pragma once

#include <QCoreApplication>
#include <QThread>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

// Also gives the process its own codec lock, so that other tests and daemons cannot make it busy.
inline QCoreApplication* app()
{
    static int argc = 1;
    static char* argv[] = {const_cast<char*>("unit_test"), nullptr};
    static const std::string lock = "/tmp/orvane-unit-test-" + std::to_string(getpid()) + ".lock";
    setenv("ORVANE_HOST_CODEC_LOCK", lock.c_str(), 1);
    static QCoreApplication* instance = new QCoreApplication(argc, argv);
    return instance;
}

// Everything printed to file descriptor 1 while it lives, released even when an assertion returns early.
struct StdoutCapture {
    bool capturing = (testing::internal::CaptureStdout(), true);
    std::string captured;
    ~StdoutCapture() { text(); }
    std::string text()
    {
        captured = capturing ? testing::internal::GetCapturedStdout() : captured;
        capturing = false;
        return captured;
    }
};

// The application events 2025..2028 with the thread each was delivered on; read them once the
// sending thread is joined and the posted ones are delivered.
struct EventRecorder : QObject {
    EventRecorder() { app()->installEventFilter(this); }
    ~EventRecorder() override { app()->removeEventFilter(this); }
    bool eventFilter(QObject*, QEvent* event) override
    {
        const int type = event->type();
        if (type >= 2025 && type <= 2028)
            seen.push_back({type, QThread::currentThread()});
        return type >= 2025 && type <= 2028;
    }
    long count(int type) const
    {
        return std::count_if(seen.begin(), seen.end(), [type](const auto& s) { return s.first == type; });
    }
    std::vector<std::pair<int, QThread*>> seen;
};

template <typename F> bool wait_until(F done, int timeout_ms)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!done() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return done();
}
