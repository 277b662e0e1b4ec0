// The socket layer's whole-message reads and writes.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "net/sock.h"

TEST(Sock, RecvAllGivesTheWholeRequestOrZeroAtTheEndAndIsNotRetriedAfterItsTimeOut)
{
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    // Each part after a pause in which the reader blocks; then a link's teardown frees it.
    auto writer = std::async(std::launch::async, [&] {
        for (const char* part : {"ab", "cd", static_cast<const char*>(nullptr)}) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            EXPECT_TRUE(part ? sock_send_all(fds[1], part, 2) == 2 : sock_shutdown(fds[0], SHUT_RDWR));
        }
    });
    char buf[68] = {};
    EXPECT_EQ(sock_recv_all(fds[0], buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "abcd");
    EXPECT_EQ(sock_recv_all(fds[0], buf, 4), 0);
    writer.get();
    close(fds[0]);
    close(fds[1]);

    // A silent Wi-Fi phone: the receive time-out ends the read, which must not be retried.
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    sock_set_recv_timeout(fds[0], 200);
    ASSERT_EQ(sock_recv_timeout(fds[0]), 200);
    auto result = std::async(std::launch::async, [&] { return sock_recv_all(fds[0], buf, sizeof buf); });
    // Generous hang guard only: if the time-out is retried, free the reader and fail.
    if (result.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        ADD_FAILURE() << "sock_recv_all kept retrying after the receive time-out";
        shutdown(fds[0], SHUT_RDWR);
    }
    EXPECT_EQ(result.get(), 0);
    // The next descriptor of that number starts without one.
    EXPECT_TRUE(sock_close(fds[0]));
    EXPECT_EQ(sock_recv_timeout(fds[0]), 0);
    close(fds[1]);
}
