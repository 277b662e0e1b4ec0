// The physically contiguous video buffer on the emulated allocator, and the decoder's codec lock.
#include <gtest/gtest.h>

#include "platform/host/host_platform.h"
#include "video_test_support.h"

namespace {

using namespace video_test;

// The codec-busy fault counts lock attempts from the start of the process, so this test must take
// the lock before anything else in this file does.
TEST(DecoderLock, RetriesAQuarterSecondApartAndGivesUpAfterFourTries)
{
    app();
    const std::string busy = "decoder_open, MFCTryLock:0\n";
    const struct {
        const char* fault;
        bool locked;
        std::string text;
        int min_ms;
    } rows[] = {{"codec-busy:2", true, busy + busy + "decoder_open, MFCTryLock:1\n", 450},
                {"codec-busy", false, busy + busy + busy + busy + "decoder_open MFC Lock failed\n", 950}};
    for (const auto& row : rows) {
        setenv("ORVANE_HOST_FAULTS", row.fault, 1);
        video_buffer b{};
        decoder dec{&b};
        StdoutCapture out;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(decoder_open(&dec, 0), row.locked) << row.fault;
        const auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(out.text(), row.text);
        EXPECT_GE(waited, std::chrono::milliseconds(row.min_ms)) << row.fault;
        EXPECT_EQ(b.codec_locked, row.locked);
        decoder_close(&dec);
        unsetenv("ORVANE_HOST_FAULTS");
    }
}

TEST(VideoBuffer, HoldsOneMebibyteTheCodecSeesAtItsPhysicalAddressUntilDestroyed)
{
    video_buffer b{};
    StdoutCapture out;
    ASSERT_TRUE(video_buffer_init(&b, true, 1080, 1920));
    EXPECT_EQ(out.text(), "init tez video buffer:0\n");
    ASSERT_NE(b.mapped_address, VIDEO_BUFFER_UNMAPPED);
    EXPECT_EQ(b.length, VIDEO_BUFFER_SIZE);
    EXPECT_NE(host_memalloc_view(b.physical_address, nullptr), nullptr) << "the codec sees the area";
    video_buffer_destroy(&b);
    EXPECT_EQ(host_memalloc_area_count(), 0);
}

TEST(VideoBuffer, EachAllocationFailurePrintsItsLineAndInitStillSucceedsUnmapped)
{
    const std::pair<const char*, std::string> rows[] = {{"memalloc-open", "open memalloc failed!\n"},
                                                        {"mem-open", "Failed to open: /dev/mem\n"},
                                                        {"memalloc-zero", "Memalloc: get buffer failure\n"},
                                                        {"mmap", "Memalloc buffer mmap faile\n"}};
    for (const auto& [fault, line] : rows) {
        setenv("ORVANE_HOST_FAULTS", fault, 1);
        video_buffer b{};
        StdoutCapture out;
        EXPECT_TRUE(video_buffer_init(&b, false, 1280, 720));
        unsetenv("ORVANE_HOST_FAULTS");
        EXPECT_EQ(out.text(), line + "init tez video buffer:-1\n");
        EXPECT_TRUE(b.memalloc_fd == -1 && b.mapped_address == VIDEO_BUFFER_UNMAPPED) << fault;
        video_buffer_destroy(&b);
        EXPECT_EQ(host_memalloc_area_count(), 0) << fault;
    }
}

} // namespace
