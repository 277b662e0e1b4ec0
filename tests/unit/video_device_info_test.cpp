// The 68-byte record that opens every video connection, read from a real socket.
#include <gtest/gtest.h>

#include <cstring>

#include "video/device_info.h"
#include "video_test_support.h"

namespace {

TEST(DeviceInfo, ReadsTheNameCutAtSixtyThreeCharactersAndTheBigEndianSize)
{
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    const std::string record = std::string(64, 'N') + "\x04\x38\x07\x80";
    ASSERT_TRUE(video_test::send_all(fds[1], std::vector<uint8_t>(record.begin(), record.end())));
    char name[128];
    std::memset(name, 'x', sizeof name);
    int size[2] = {1280, 720};
    ASSERT_TRUE(device_read_info(fds[0], name, size));
    EXPECT_EQ(std::string(name), std::string(63, 'N'));
    EXPECT_EQ(name[64], 'x') << "nothing is written past the terminating zero";
    EXPECT_EQ(size[0], 1080);
    EXPECT_EQ(size[1], 1920);

    // The phone hangs up before its record: false, its line, and the outputs are left alone.
    close(fds[1]);
    video_test::StdoutCapture out;
    EXPECT_FALSE(device_read_info(fds[0], name, size));
    EXPECT_EQ(out.text(), "Could not retrieve device information\n");
    EXPECT_EQ(std::string(name), std::string(63, 'N'));
    EXPECT_EQ(size[0], 1080);
    close(fds[0]);
}

} // namespace
