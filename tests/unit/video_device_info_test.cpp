// The 68-byte record that opens every video connection, read from a real socket.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include "video/device_info.h"
#include "video_test_support.h"

namespace {

using video_test::send_all;

std::vector<uint8_t> record(const std::string& name, uint8_t w_hi, uint8_t w_lo, uint8_t h_hi, uint8_t h_lo)
{
    std::vector<uint8_t> r(DEVICE_INFO_SIZE, 0);
    std::memcpy(r.data(), name.data(), std::min<size_t>(name.size(), DEVICE_NAME_FIELD));
    r[64] = w_hi;
    r[65] = w_lo;
    r[66] = h_hi;
    r[67] = h_lo;
    return r;
}

class DeviceInfo : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0); }
    void TearDown() override
    {
        close(fds_[0]);
        if (fds_[1] >= 0)
            close(fds_[1]);
    }
    int fds_[2] = {-1, -1};
};

TEST_F(DeviceInfo, ReadsNameAndBigEndianSizeAndLeavesTheNextPacketInPlace)
{
    std::vector<uint8_t> data = record("Pixel 7", 0x04, 0x38, 0x07, 0x80);
    const std::vector<uint8_t> next = video_test::tcp_header(0x0102030405060708ULL, 0x1234);
    data.insert(data.end(), next.begin(), next.end());
    ASSERT_TRUE(send_all(fds_[1], data));

    char name[128];
    std::memset(name, 'x', sizeof name);
    int size[2] = {1280, 720};
    ASSERT_TRUE(device_read_info(fds_[0], name, size));
    EXPECT_STREQ(name, "Pixel 7");
    EXPECT_EQ(size[0], 1080);
    EXPECT_EQ(size[1], 1920);

    uint8_t header[12];
    ASSERT_EQ(recv(fds_[0], header, sizeof header, MSG_DONTWAIT), 12);
    EXPECT_EQ(std::vector<uint8_t>(header, header + 12), next);
}

TEST_F(DeviceInfo, NameIsCutAtSixtyThreeCharactersWhateverTheLastByteHolds)
{
    const std::string full(64, 'N');
    ASSERT_TRUE(send_all(fds_[1], record(full, 0xFF, 0xFF, 0x00, 0x01)));
    char name[128];
    std::memset(name, 'x', sizeof name);
    int size[2] = {0, 0};
    ASSERT_TRUE(device_read_info(fds_[0], name, size));
    EXPECT_EQ(std::string(name), std::string(63, 'N'));
    EXPECT_EQ(name[64], 'x') << "nothing is written past the terminating zero";
    EXPECT_EQ(size[0], 65535);
    EXPECT_EQ(size[1], 1);

    // The parse alone, with a zero inside the field: the text stops there.
    std::vector<uint8_t> r = record(std::string("AFFA\0tail", 9), 0x02, 0xD0, 0x05, 0x00);
    device_info_parse(r.data(), name, size);
    EXPECT_STREQ(name, "AFFA");
    EXPECT_EQ(size[0], 720);
    EXPECT_EQ(size[1], 1280);
}

TEST_F(DeviceInfo, ClosedConnectionFailsWithItsLineAndLeavesTheOutputsAlone)
{
    // The phone hung up before sending its record.
    close(fds_[1]);
    fds_[1] = -1;

    char name[128];
    std::strcpy(name, "unchanged");
    int size[2] = {1280, 720};
    video_test::StdoutCapture out;
    EXPECT_FALSE(device_read_info(fds_[0], name, size));
    EXPECT_NE(out.text().find("Could not retrieve device information\n"), std::string::npos);
    EXPECT_STREQ(name, "unchanged");
    EXPECT_EQ(size[0], 1280);
    EXPECT_EQ(size[1], 720);
}

} // namespace
