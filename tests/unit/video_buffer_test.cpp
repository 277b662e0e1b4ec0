// The physically contiguous video buffer on the emulated allocator, and the decoder adapter's
// codec lock with its retries.
#include <gtest/gtest.h>

#include <QMutex>
#include <QWaitCondition>

#include <chrono>
#include <cstring>
#include <thread>

#include "platform/host/host_platform.h"
#include "video_test_support.h"

namespace {

using namespace video_test;

video_buffer fresh_buffer()
{
    video_buffer b{};
    b.memalloc_fd = -1;
    b.mapped_address = VIDEO_BUFFER_UNMAPPED;
    return b;
}

// The codec-busy fault counts lock attempts from the start of the process, so the retry test
// must come before anything else in this file takes the lock.
TEST(DecoderLock, FreeOnTheThirdTryAfterTwoQuarterSecondSleeps)
{
    use_private_codec_lock();
    setenv("ORVANE_HOST_FAULTS", "codec-busy:2", 1);
    video_buffer b = fresh_buffer();
    decoder dec{&b};
    LogCapture log;
    StdoutCapture out;
    const auto start = std::chrono::steady_clock::now();
    const bool locked = decoder_open(&dec, 0);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    const std::string text = out.text();
    unsetenv("ORVANE_HOST_FAULTS");

    ASSERT_TRUE(locked) << text;
    EXPECT_EQ(text, "decoder_open, MFCTryLock:0\ndecoder_open, MFCTryLock:0\ndecoder_open, MFCTryLock:1\n");
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count(), 450);
    EXPECT_TRUE(b.codec_locked);
    EXPECT_TRUE(b.new_stream);
    const std::vector<std::string> lines = log.take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(" decoder_open MFCLock: 1 "), std::string::npos) << lines[0];
    decoder_close(&dec);
}

TEST(DecoderLock, BusyOnAllFourTriesGivesUp)
{
    use_private_codec_lock();
    setenv("ORVANE_HOST_FAULTS", "codec-busy", 1);
    video_buffer b = fresh_buffer();
    decoder dec{&b};
    StdoutCapture out;
    const auto start = std::chrono::steady_clock::now();
    const bool locked = decoder_open(&dec, 0);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    const std::string text = out.text();
    unsetenv("ORVANE_HOST_FAULTS");

    EXPECT_FALSE(locked);
    EXPECT_EQ(count_of(text, "decoder_open, MFCTryLock:0\n"), 4u) << text;
    EXPECT_NE(text.find("decoder_open MFC Lock failed\n"), std::string::npos) << text;
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count(), 900);
    EXPECT_FALSE(b.codec_locked);
    decoder_close(&dec); // nothing held, nothing released
}

// Whether another process could take the codec right now.
bool codec_free_for_others()
{
    const std::string cmd = std::string("flock -n '") + std::getenv("ORVANE_HOST_CODEC_LOCK") + "' true";
    return std::system(cmd.c_str()) == 0;
}

TEST(DecoderLock, HeldFromOpenUntilClose)
{
    use_private_codec_lock();
    video_buffer b = fresh_buffer();
    decoder dec{&b};
    StdoutCapture quiet;
    ASSERT_TRUE(decoder_open(&dec, 0));
    EXPECT_FALSE(codec_free_for_others());
    decoder_close(&dec);
    EXPECT_TRUE(codec_free_for_others());
    EXPECT_TRUE(b.codec_locked) << "the flag stays until the buffer is allocated again";

    // Without the lock (or without a buffer) closing releases nothing.
    decoder none{nullptr};
    decoder_close(&none);
    decoder_close(nullptr);
}

TEST(VideoBuffer, HoldsOneMebibyteTheCodecSeesAtItsPhysicalAddress)
{
    const int areas = host_memalloc_area_count();
    video_buffer b = fresh_buffer();
    StdoutCapture out;
    ASSERT_TRUE(video_buffer_init(&b, true, 1080, 1920));
    EXPECT_EQ(out.text(), "init tez video buffer:0\n");
    ASSERT_NE(b.mapped_address, VIDEO_BUFFER_UNMAPPED);
    EXPECT_NE(b.physical_address, 0u);
    EXPECT_EQ(b.length, VIDEO_BUFFER_SIZE);
    EXPECT_GE(b.memalloc_fd, 0);
    EXPECT_EQ(b.output, video_buffer_decode_output());
    EXPECT_EQ(b.frame_width, 1080);
    EXPECT_EQ(b.frame_height, 1920);
    EXPECT_FALSE(b.codec_locked);
    EXPECT_TRUE(b.initialised);
    EXPECT_NE(b.mutex, nullptr);
    EXPECT_NE(b.condition, nullptr);
    EXPECT_EQ(host_memalloc_area_count(), areas + 1);

    // The whole area, first to last byte, is the memory the codec reads by physical address.
    size_t capacity = 0;
    uint8_t* view = host_memalloc_view(b.physical_address, &capacity);
    ASSERT_NE(view, nullptr);
    ASSERT_GE(capacity, size_t(VIDEO_BUFFER_SIZE));
    for (uint32_t i = 0; i < VIDEO_BUFFER_SIZE; ++i)
        b.mapped_address[i] = static_cast<uint8_t>(i * 7 + 3);
    EXPECT_EQ(std::memcmp(view, b.mapped_address, VIDEO_BUFFER_SIZE), 0);

    video_buffer_destroy(&b);
    EXPECT_EQ(b.memalloc_fd, -1);
    EXPECT_EQ(b.mapped_address, VIDEO_BUFFER_UNMAPPED);
    EXPECT_EQ(host_memalloc_area_count(), areas);
}

TEST(VideoBuffer, AllocationFailuresPrintTheirLineAndInitStillSucceeds)
{
    const struct {
        const char* fault;
        const char* line;
    } rows[] = {
        {"memalloc-open", "open memalloc failed!\n"},
        {"mem-open", "Failed to open: /dev/mem\n"},
        {"memalloc-zero", "Memalloc: get buffer failure\n"},
        {"mmap", "Memalloc buffer mmap faile\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        setenv("ORVANE_HOST_FAULTS", row.fault, 1);
        video_buffer b = fresh_buffer();
        StdoutCapture out;
        EXPECT_TRUE(video_buffer_init(&b, false, 1280, 720));
        EXPECT_EQ(video_buffer_memalloc(&b, 1280, 720), -1);
        unsetenv("ORVANE_HOST_FAULTS");
        const std::string text = out.text();
        EXPECT_EQ(text, std::string(row.line) + "init tez video buffer:-1\n" + row.line);
        EXPECT_EQ(b.memalloc_fd, -1);
        EXPECT_EQ(b.mapped_address, VIDEO_BUFFER_UNMAPPED);
        EXPECT_NE(b.mutex, nullptr);
        EXPECT_EQ(b.condition, nullptr);
        EXPECT_TRUE(b.initialised);

        // Destroy after a failed allocation closes and unmaps nothing.
        const int areas = host_memalloc_area_count();
        video_buffer_destroy(&b);
        EXPECT_EQ(b.memalloc_fd, -1);
        EXPECT_EQ(b.mapped_address, VIDEO_BUFFER_UNMAPPED);
        EXPECT_EQ(host_memalloc_area_count(), areas);
    }
}

TEST(VideoBuffer, InterruptWakesAConsumerWaitingOnTheCondition)
{
    app();
    video_buffer b = fresh_buffer();
    {
        StdoutCapture quiet;
        ASSERT_TRUE(video_buffer_init(&b, true, 1280, 720));
    }
    ASSERT_FALSE(b.ready);
    decoder dec{&b};
    std::atomic<bool> woken{false};
    std::atomic<bool> waiting{false};
    std::thread consumer([&] {
        b.mutex->lock();
        waiting = true;
        while (!b.ready)
            b.condition->wait(b.mutex, 5000);
        woken = b.ready;
        b.mutex->unlock();
    });
    ASSERT_TRUE(wait_until([&] { return waiting.load(); }, 2000));
    decoder_interrupt(&dec);
    consumer.join();
    EXPECT_TRUE(woken.load());
    video_buffer_destroy(&b);

    // Without the condition the signal is nothing.
    video_buffer plain = fresh_buffer();
    {
        StdoutCapture quiet;
        ASSERT_TRUE(video_buffer_init(&plain, false, 1280, 720));
    }
    video_buffer_signal(&plain);
    EXPECT_FALSE(plain.ready);
    video_buffer_destroy(&plain);
}

} // namespace
