// The service layer's console line: the timestamp prefix, item spacing and quoting, and the
// message type handed to Qt. (The console as a whole is checked by the D-Bus system test.)
#include <gtest/gtest.h>

#include <QString>
#include <chrono>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "base/log_line.h"

namespace {

std::vector<std::pair<QtMsgType, std::string>> captured;

} // namespace

TEST(LogLine, TimestampPrefixGoesThroughSinglePrecision)
{
    // Past 16384 s a float no longer holds every millisecond.
    const std::pair<int64_t, const char*> cases[] = {
        {0, "[0.000] "}, {5007, "[5.007] "}, {8192123, "[8192.123] "}, {16384001, "[16384.002] "}};
    for (const auto& c : cases)
        EXPECT_EQ(log_timestamp_prefix_for_ms(c.first), c.second);
}

TEST(LogLine, EveryItemIsFollowedByOneSpaceStringsAreQuotedAsTheyAreAndDebugLinesStamped)
{
    const QtMessageHandler previous =
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& msg) {
            captured.emplace_back(type, msg.toStdString());
        });
    // Items of every width; strings quoted with nothing escaped; crash report lines as warnings.
    LogLine(QtDebugMsg, false) << "sizes" << -1 << 4294967295u << -9000000000LL << 18446744073709551615ULL
                               << 'x' << std::string("std") << true << QString("1280:720") << QString();
    LogLine(QtWarningMsg, false) << QString("[3] ./orvaned(+0x1c2f) [0x55d1] \n") << QString("say \"hi\"\t");
    const auto monotonic = [] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
    };
    const double before = monotonic();
    logLine() << "OrvaneApp::requestLinkStatus" << 243 << 24;
    const double after = monotonic();
    qInstallMessageHandler(previous);

    ASSERT_EQ(captured.size(), 3u);
    EXPECT_EQ(captured[0],
              std::make_pair(QtDebugMsg, std::string("sizes -1 4294967295 -9000000000 "
                                                     "18446744073709551615 x std true \"1280:720\" \"\" ")));
    EXPECT_EQ(captured[1],
              std::make_pair(QtWarningMsg,
                             std::string("\"[3] ./orvaned(+0x1c2f) [0x55d1] \n\" \"say \"hi\"\t\" ")));
    // The monotonic clock (float resolution plus truncation as slack).
    std::smatch m;
    const std::string& last = captured.back().second;
    ASSERT_TRUE(
        std::regex_match(last, m, std::regex(R"(\[(\d+\.\d{3})\]  OrvaneApp::requestLinkStatus 243 24 )")))
        << last;
    const double stamp = std::stod(m[1]), slack = before / 8388608.0 + 0.002;
    EXPECT_TRUE(stamp >= before - slack && stamp <= after + slack)
        << stamp << " not in " << before << ".." << after;
    EXPECT_EQ(captured.back().first, QtDebugMsg);
}
