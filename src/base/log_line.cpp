#include "base/log_line.h"

#include "base/clock.h"
#include "base/console.h"

#include <QMessageLogger>
#include <cstdio>
#include <ctime>

std::string log_timestamp_prefix_for_ms(int64_t ms)
{
    // Kept on purpose (docs/KEPT.md): single precision, so from 16384 s on the stamp loses milliseconds.
    const float seconds = static_cast<float>(static_cast<uint64_t>(ms)) / 1000.0f;
    char buf[64];
    std::snprintf(buf, sizeof buf, "[%.3f] ", static_cast<double>(seconds));
    return buf;
}

std::string log_timestamp_prefix()
{
    return log_timestamp_prefix_for_ms(monotonic_ms());
}

LogLine::LogLine(QtMsgType type, bool withPrefix) : type_(type)
{
    if (withPrefix)
        item(log_timestamp_prefix());
}

LogLine::~LogLine()
{
    // The console keeps the lower layers' last line as a failure's reason; this is not one.
    ConsoleServiceLine serviceLine;
    QMessageLogger logger;
    if (type_ == QtWarningMsg)
        logger.warning("%s", text_.c_str());
    else
        logger.debug("%s", text_.c_str());
}

void LogLine::item(const std::string& text)
{
    text_ += text;
    text_ += ' ';
}

LogLine& LogLine::operator<<(const char* text)
{
    item(text ? text : "(null)");
    return *this;
}

LogLine& LogLine::operator<<(const std::string& text)
{
    item(text);
    return *this;
}

LogLine& LogLine::operator<<(const QString& text)
{
    // Kept on purpose (docs/KEPT.md): quoted, nothing escaped.
    item('"' + text.toLocal8Bit().toStdString() + '"');
    return *this;
}

LogLine& LogLine::operator<<(char c)
{
    item(std::string(1, c));
    return *this;
}

LogLine& LogLine::operator<<(bool value)
{
    item(value ? "true" : "false");
    return *this;
}

LogLine& LogLine::operator<<(int value)
{
    item(std::to_string(value));
    return *this;
}

LogLine& LogLine::operator<<(unsigned value)
{
    item(std::to_string(value));
    return *this;
}

LogLine& LogLine::operator<<(long value)
{
    item(std::to_string(value));
    return *this;
}

LogLine& LogLine::operator<<(unsigned long value)
{
    item(std::to_string(value));
    return *this;
}

LogLine& LogLine::operator<<(long long value)
{
    item(std::to_string(value));
    return *this;
}

LogLine& LogLine::operator<<(unsigned long long value)
{
    item(std::to_string(value));
    return *this;
}
