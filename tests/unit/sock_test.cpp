// IPv4 socket primitives on loopback, and the string helpers of the same layer.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "net/sock.h"

namespace {

uint16_t local_port(int sock)
{
    sockaddr_in sin;
    socklen_t len = sizeof sin;
    getsockname(sock, reinterpret_cast<sockaddr*>(&sin), &len);
    return ntohs(sin.sin_port);
}

struct Connection {
    int listener = sock_listen(SOCK_ADDR_LOOPBACK, 0, 1);
    int client = sock_connect(SOCK_ADDR_LOOPBACK, local_port(listener));
    int server = sock_accept(listener);
    ~Connection()
    {
        for (int fd : {listener, client, server})
            if (fd != -1)
                close(fd);
    }
};

void pause_ms(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

} // namespace

TEST(Sock, RecvAllGivesTheWholeRequestOrZeroAtTheEnd)
{
    Connection c;
    ASSERT_NE(c.server, -1);
    auto writer = std::async(std::launch::async, [&] {
        sock_send_all(c.client, "ab", 2);
        pause_ms(50);
        sock_send_all(c.client, "cd", 2);
        pause_ms(50);
        // How a link's teardown frees a blocked reader.
        sock_shutdown(c.server, SHUT_RDWR);
    });
    char buf[4] = {};
    EXPECT_EQ(sock_recv_all(c.server, buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "abcd");
    EXPECT_EQ(sock_recv_all(c.server, buf, 4), 0);
    writer.get();
    EXPECT_EQ(sock_send_all(-1, "", 0), 0) << "nothing to send must not touch the socket";
    EXPECT_EQ(sock_send_all(-1, "abcd", 4), -1);
}

TEST(Sock, RecvAllEndsAtTheReceiveTimeOutButWaitsOutANonBlockingSocket)
{
    // A silent Wi-Fi phone: the header read is bounded by SO_RCVTIMEO and must not be retried.
    Connection c;
    const timeval timeout = {0, 200000};
    ASSERT_EQ(setsockopt(c.server, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout), 0);
    char buf[68];
    auto result = std::async(std::launch::async, [&] { return sock_recv_all(c.server, buf, sizeof buf); });
    // Generous hang guard only: if the time-out is retried, free the reader and fail.
    if (result.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        ADD_FAILURE() << "sock_recv_all kept retrying after the receive time-out";
        shutdown(c.server, SHUT_RDWR);
    }
    EXPECT_EQ(result.get(), 0);

    Connection n;
    ASSERT_EQ(fcntl(n.server, F_SETFL, fcntl(n.server, F_GETFL) | O_NONBLOCK), 0);
    auto writer = std::async(std::launch::async, [&] {
        pause_ms(50);
        send(n.client, "wxyz", 4, 0);
    });
    EXPECT_EQ(sock_recv_all(n.server, buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "wxyz");
    writer.get();
}

TEST(Sock, ListenAgainWhileTheLastConnectionIsInTimeWait)
{
    uint16_t port;
    {
        Connection c;
        port = local_port(c.listener);
        // Closing the accepted side first leaves the TIME_WAIT on our port.
        close(c.server);
        c.server = -1;
        char byte;
        EXPECT_EQ(recv(c.client, &byte, 1, 0), 0);
    }
    const int plain = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_addr.s_addr = htonl(SOCK_ADDR_LOOPBACK);
    sin.sin_port = htons(port);
    EXPECT_EQ(bind(plain, reinterpret_cast<sockaddr*>(&sin), sizeof sin), -1) << "no TIME_WAIT to test";
    close(plain);
    const int again = sock_listen(SOCK_ADDR_LOOPBACK, port, 1);
    EXPECT_NE(again, -1);
    close(again);
}

TEST(StrHelpers, JoinCopiesTokensUntilTheBufferIsFull)
{
    const char* abc[] = {"a", "b", "c", nullptr};
    char buf[16];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(str_join(buf, abc, ',', 4), 4u);
    EXPECT_EQ(std::string(buf, 5), std::string("a,b\0x", 5));
    const struct {
        size_t n, result;
        const char* joined;
    } joins[] = {{16, 5, "a,b,c"}, {6, 5, "a,b,c"}, {5, 5, "a,b,"}, {2, 2, "a"}, {1, 1, ""}};
    for (const auto& j : joins) {
        EXPECT_EQ(str_join(buf, abc, ',', j.n), j.result) << j.n;
        EXPECT_STREQ(buf, j.joined) << j.n;
    }
    const char* leading_empty[] = {"", "x", "", "y", nullptr};
    EXPECT_EQ(str_join(buf, leading_empty, ' ', sizeof buf), 4u);
    EXPECT_STREQ(buf, "x  y");
    const char* none[] = {nullptr};
    EXPECT_EQ(str_join(buf, none, ',', sizeof buf), 0u);
    EXPECT_STREQ(buf, "x  y") << "an empty list leaves the buffer alone";

    char* quoted = str_quote("androidlink");
    EXPECT_STREQ(quoted, "\"androidlink\"");
    free(quoted);
}
