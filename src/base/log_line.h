// One line of the service layer's log, in the daemon's long-standing console format:
// "[<seconds>] " prefix, then every item followed by exactly one space, QString values in double
// quotes (nothing escaped, so a newline stays a newline), integers in decimal, bools as words.
// The finished text goes to Qt's message handler when the builder is destroyed.
#pragma once

#include <QtGlobal>

#include <QString>
#include <cstdint>
#include <string>

// "[%.3f] " with the monotonic clock in seconds, computed through single precision on purpose:
// from 16384 s of uptime on the value no longer resolves single milliseconds.
std::string log_timestamp_prefix();
// The same formatting for a given number of milliseconds (what the clock read is turned into).
std::string log_timestamp_prefix_for_ms(int64_t ms);

class LogLine
{
public:
    // Debug lines carry the timestamp prefix; the crash handler's warning lines do not.
    explicit LogLine(QtMsgType type = QtDebugMsg, bool withPrefix = true);
    ~LogLine();
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;

    LogLine& operator<<(const char* text);
    LogLine& operator<<(const std::string& text);
    LogLine& operator<<(const QString& text);
    LogLine& operator<<(char c);
    LogLine& operator<<(bool value);
    LogLine& operator<<(int value);
    LogLine& operator<<(unsigned value);
    LogLine& operator<<(long value);
    LogLine& operator<<(unsigned long value);
    LogLine& operator<<(long long value);
    LogLine& operator<<(unsigned long long value);

private:
    void item(const std::string& text);

    QtMsgType type_;
    std::string text_;
};

// A service-layer debug line: logLine() << "OrvaneApp::startLink";
inline LogLine logLine()
{
    return LogLine();
}
