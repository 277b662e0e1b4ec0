// The service layer's console line: timestamp prefix, item spacing, quoting, and the bytes that
// Qt's default handler puts on stderr (which main() points at the serial console).
#include <gtest/gtest.h>

#include <QString>
#include <QtGlobal>
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

// Length of a leading "[<digits>.<3 digits>] " (0 without one), and its value.
size_t prefix_length(const std::string& t, double* seconds = nullptr)
{
    const size_t dot = t.find('.'), end = t.find("] ");
    if (t.empty() || t[0] != '[' || dot < 2 || end == std::string::npos || end != dot + 4 ||
        t.find_first_not_of("0123456789", 1) != dot || t.find_first_not_of("0123456789", dot + 1) != end)
        return 0;
    if (seconds != nullptr)
        *seconds = std::stod(t.substr(1, end - 1));
    return end + 2;
}

double monotonic_seconds()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

} // namespace

TEST(LogLine, TimestampPrefixGoesThroughSinglePrecision)
{
    // Past 16384 s a float no longer holds every millisecond.
    const std::pair<int64_t, const char*> cases[] = {
        {0, "[0.000] "}, {5007, "[5.007] "}, {8192123, "[8192.123] "}, {16384001, "[16384.002] "}};
    for (const auto& c : cases)
        EXPECT_EQ(log_timestamp_prefix_for_ms(c.first), c.second);
}

TEST(LogLine, EveryItemIsFollowedByOneSpaceAndStringsAreQuotedAsTheyAre)
{
    captured.clear();
    const QtMessageHandler previous =
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& msg) {
            captured.emplace_back(type, msg.toStdString());
        });
    LogLine(QtDebugMsg, false) << "requestKeyValue" << 2;
    LogLine(QtDebugMsg, false) << "sizes" << -1 << 4294967295u << -9000000000LL << 18446744073709551615ULL
                               << 'x' << std::string("std");
    LogLine(QtDebugMsg, false) << "OrvaneApp init dbus:" << true << false << QString("1280:720") << QString();
    LogLine(QtWarningMsg, false) << QString("[3] ./orvaned(+0x1c2f) [0x55d1] \n") << QString("say \"hi\"\t");
    logLine() << "OrvaneApp::requestLinkStatus" << 243 << 24;
    qInstallMessageHandler(previous);

    const std::vector<std::pair<QtMsgType, std::string>> expected = {
        {QtDebugMsg, "requestKeyValue 2 "},
        {QtDebugMsg, "sizes -1 4294967295 -9000000000 18446744073709551615 x std "},
        {QtDebugMsg, "OrvaneApp init dbus: true false \"1280:720\" \"\" "},
        {QtWarningMsg, "\"[3] ./orvaned(+0x1c2f) [0x55d1] \n\" \"say \"hi\"\t\" "},
    };
    ASSERT_EQ(captured.size(), expected.size() + 1);
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(captured[i], expected[i]);
    const std::string& last = captured.back().second;
    ASSERT_GT(prefix_length(last), 0u) << last;
    EXPECT_EQ(last.substr(prefix_length(last)), " OrvaneApp::requestLinkStatus 243 24 ");
}

TEST(LogLine, BytesOnStderrThroughQtsDefaultHandler)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const double before = monotonic_seconds();
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], STDERR_FILENO);
        unsetenv("QT_MESSAGE_PATTERN");
        qInstallMessageHandler(nullptr);
        logLine() << "OrvaneApp::requestLinkStatus" << 2 << 6;
        LogLine(QtWarningMsg, false) << "exception_print_callstack" << 2;
        LogLine(QtWarningMsg, false) << QString("[0] ./orvaned(+0x2b10) [0x5581c0a2b10] \n");
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char buf[4096];
    for (ssize_t r; (r = read(fds[0], buf, sizeof buf)) > 0;)
        out.append(buf, size_t(r));
    close(fds[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    // The debug line reads the monotonic clock (float resolution plus truncation as slack).
    double stamp = -1;
    const size_t prefix = prefix_length(out, &stamp);
    ASSERT_GT(prefix, 0u) << out;
    const double slack = before / 8388608.0 + 0.002;
    EXPECT_GE(stamp, before - slack);
    EXPECT_LE(stamp, monotonic_seconds() + slack);
    EXPECT_EQ(out.substr(prefix), " OrvaneApp::requestLinkStatus 2 6 \n"
                                  "exception_print_callstack 2 \n"
                                  "\"[0] ./orvaned(+0x2b10) [0x5581c0a2b10] \n\" \n");
}
