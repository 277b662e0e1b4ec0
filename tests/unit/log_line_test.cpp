// The service layer's console line: timestamp prefix, item spacing, quoting, and the bytes that
// Qt's default handler puts on stderr (which main() points at the serial console).
#include <gtest/gtest.h>

#include <QString>
#include <QtGlobal>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "service/log_line.h"

namespace {

std::vector<std::pair<QtMsgType, std::string>> captured;

void capture_handler(QtMsgType type, const QMessageLogContext&, const QString& msg)
{
    captured.emplace_back(type, msg.toStdString());
}

class LogLineText : public ::testing::Test
{
protected:
    void SetUp() override
    {
        captured.clear();
        previous_ = qInstallMessageHandler(capture_handler);
    }
    void TearDown() override { qInstallMessageHandler(previous_); }

private:
    QtMessageHandler previous_ = nullptr;
};

// Length of a leading "[<digits>.<3 digits>] " and its value; 0 when the text does not start with one.
// (Hand-parsed: std::regex trips GCC 12's uninitialised-use warning in sanitizer builds.)
size_t prefix_length(const std::string& text, double* seconds = nullptr)
{
    size_t i = 0;
    if (text.size() < 2 || text[i++] != '[')
        return 0;
    const size_t digits = i;
    while (i < text.size() && isdigit(static_cast<unsigned char>(text[i])))
        ++i;
    if (i == digits || i >= text.size() || text[i++] != '.')
        return 0;
    for (int k = 0; k < 3; ++k, ++i)
        if (i >= text.size() || !isdigit(static_cast<unsigned char>(text[i])))
            return 0;
    if (text.compare(i, 2, "] ") != 0)
        return 0;
    if (seconds != nullptr)
        *seconds = std::stod(text.substr(1, i - 1));
    return i + 2;
}

double monotonic_seconds()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

} // namespace

TEST(LogTimestampPrefix, MillisecondsThroughSinglePrecision)
{
    EXPECT_EQ(log_timestamp_prefix_for_ms(0), "[0.000] ");
    EXPECT_EQ(log_timestamp_prefix_for_ms(5007), "[5.007] ");
    EXPECT_EQ(log_timestamp_prefix_for_ms(8192123), "[8192.123] ");
    // Past 16384 s a float no longer holds every millisecond.
    EXPECT_EQ(log_timestamp_prefix_for_ms(16384001), "[16384.002] ");
}

TEST(LogTimestampPrefix, ReadsTheMonotonicClock)
{
    const double before = monotonic_seconds();
    const std::string prefix = log_timestamp_prefix();
    const double after = monotonic_seconds();
    double value = -1;
    ASSERT_EQ(prefix_length(prefix, &value), prefix.size()) << prefix;
    // Float resolution at the machine's uptime, plus the truncation to milliseconds.
    const double slack = before / 8388608.0 + 0.002;
    EXPECT_GE(value, before - slack);
    EXPECT_LE(value, after + slack);
}

TEST_F(LogLineText, EveryItemIsFollowedByOneSpace)
{
    {
        LogLine line(QtDebugMsg, false);
        line << "requestKeyValue" << 2;
        EXPECT_EQ(line.text(), "requestKeyValue 2 ");
    }
    {
        LogLine line;
        line << "OrvaneApp::requestLinkStatus" << 243 << 24;
        const std::string& text = line.text();
        const size_t prefix = prefix_length(text);
        ASSERT_GT(prefix, 0u) << text;
        EXPECT_EQ(text.substr(prefix), " OrvaneApp::requestLinkStatus 243 24 ");
    }
    {
        LogLine line(QtDebugMsg, false);
        line << "sizes" << -1 << 4294967295u << -9000000000LL << 18446744073709551615ULL << 'x'
             << std::string("std");
        EXPECT_EQ(line.text(), "sizes -1 4294967295 -9000000000 18446744073709551615 x std ");
    }
    ASSERT_EQ(captured.size(), 3u);
    EXPECT_EQ(captured[0], std::make_pair(QtDebugMsg, std::string("requestKeyValue 2 ")));
    EXPECT_EQ(captured[1].first, QtDebugMsg);
}

TEST_F(LogLineText, QuotedStringsAndWordsForBools)
{
    {
        LogLine line(QtDebugMsg, false);
        line << "OrvaneApp init dbus:" << true << false << QString("1280:720") << QString();
        EXPECT_EQ(line.text(), "OrvaneApp init dbus: true false \"1280:720\" \"\" ");
    }
    {
        // Nothing inside the quotes is escaped.
        LogLine line(QtWarningMsg, false);
        line << QString("[3] ./orvaned(+0x1c2f) [0x55d1] \n") << QString("say \"hi\"\t");
        EXPECT_EQ(line.text(), "\"[3] ./orvaned(+0x1c2f) [0x55d1] \n\" \"say \"hi\"\t\" ");
    }
    ASSERT_EQ(captured.size(), 2u);
    EXPECT_EQ(captured[0].first, QtDebugMsg);
    EXPECT_EQ(captured[1].first, QtWarningMsg);
    EXPECT_EQ(captured[1].second, "\"[3] ./orvaned(+0x1c2f) [0x55d1] \n\" \"say \"hi\"\t\" ");
}

TEST(LogLineConsole, BytesOnStderrThroughQtsDefaultHandler)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const double before = monotonic_seconds();
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        dup2(fds[1], STDERR_FILENO);
        close(fds[1]);
        unsetenv("QT_MESSAGE_PATTERN");
        qInstallMessageHandler(nullptr);
        logLine() << "OrvaneApp::requestLinkStatus" << 2 << 6;
        LogLine(QtWarningMsg, false) << "exception_print_callstack" << 2;
        LogLine(QtWarningMsg, false) << QString("[0] ./orvaned(+0x2b10) [0x5581c0a2b10] \n");
        LogLine(QtWarningMsg, false) << QString("[1] /lib/x86_64-linux-gnu/libc.so.6(+0x3bf90) [0x7f3a] \n");
        {
            LogLine bus;
            bus << QString("Name \"com.quorva.mirror\" already taken");
        }
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char buf[4096];
    ssize_t r;
    while ((r = read(fds[0], buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(r));
    close(fds[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    // Two debug lines with a prefix around three warning lines without.
    double stamp = -1;
    const size_t first = prefix_length(out, &stamp);
    ASSERT_GT(first, 0u) << out;
    const std::string middle = " OrvaneApp::requestLinkStatus 2 6 \n"
                               "exception_print_callstack 2 \n"
                               "\"[0] ./orvaned(+0x2b10) [0x5581c0a2b10] \n\" \n"
                               "\"[1] /lib/x86_64-linux-gnu/libc.so.6(+0x3bf90) [0x7f3a] \n\" \n";
    ASSERT_EQ(out.compare(first, middle.size(), middle), 0) << out;
    const std::string last = out.substr(first + middle.size());
    const size_t second = prefix_length(last);
    ASSERT_GT(second, 0u) << out;
    EXPECT_EQ(last.substr(second), " \"Name \"com.quorva.mirror\" already taken\" \n");
    EXPECT_GE(stamp, before - before / 8388608.0 - 0.002);
    EXPECT_LE(stamp, monotonic_seconds() + 1.0);
}
