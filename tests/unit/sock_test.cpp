// IPv4 socket primitives on loopback, and the string helpers of the same layer.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <future>
#include <netinet/in.h>
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

// Runs fn with stderr on a pipe and returns what it printed (perror lines).
std::string capture_stderr(const std::function<void()>& fn)
{
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const int saved = dup(STDERR_FILENO);
    dup2(fds[1], STDERR_FILENO);
    close(fds[1]);
    fn();
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string out;
    char buf[1024];
    ssize_t r;
    while ((r = read(fds[0], buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(r));
    close(fds[0]);
    return out;
}

struct Connection {
    int listener = -1;
    int client = -1;
    int server = -1;
    ~Connection()
    {
        for (int fd : {listener, client, server})
            if (fd != -1)
                close(fd);
    }
};

void connect_pair(Connection& c)
{
    c.listener = sock_listen(SOCK_ADDR_LOOPBACK, 0, 1);
    ASSERT_NE(c.listener, -1);
    c.client = sock_connect(SOCK_ADDR_LOOPBACK, local_port(c.listener));
    ASSERT_NE(c.client, -1);
    c.server = sock_accept(c.listener);
    ASSERT_NE(c.server, -1);
}

} // namespace

TEST(Sock, ListenConnectAcceptCarryBytesBothWays)
{
    Connection c;
    connect_pair(c);
    const char hello[] = "ping";
    EXPECT_EQ(sock_send_all(c.client, hello, 4), 4);
    char buf[8] = {};
    EXPECT_EQ(sock_recv_all(c.server, buf, 4), 4);
    EXPECT_STREQ(buf, "ping");
    EXPECT_EQ(sock_send_all(c.server, "x", 1), 1);
    EXPECT_EQ(sock_recv(c.client, buf, sizeof buf), 1);
    EXPECT_EQ(buf[0], 'x');
    EXPECT_TRUE(sock_close(c.client));
    c.client = -1;
    EXPECT_FALSE(sock_close(-1));
}

TEST(Sock, RecvAllWaitsForTheWholeRequestOrReportsTheEnd)
{
    Connection c;
    connect_pair(c);
    std::thread writer([&] {
        send(c.client, "ab", 2, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        send(c.client, "cd", 2, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        shutdown(c.client, SHUT_WR);
    });
    char buf[4] = {};
    EXPECT_EQ(sock_recv_all(c.server, buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "abcd");
    EXPECT_EQ(sock_recv_all(c.server, buf, 4), 0);
    writer.join();
}

TEST(Sock, ShutdownReleasesABlockedReader)
{
    // How a link's teardown frees the stream reader and the receiver.
    Connection c;
    connect_pair(c);
    std::atomic<ssize_t> result{-2};
    std::thread reader([&] {
        char buf[16];
        result = sock_recv_all(c.server, buf, sizeof buf);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(result.load(), -2);
    EXPECT_TRUE(sock_shutdown(c.server, SHUT_RDWR));
    reader.join();
    EXPECT_EQ(result.load(), 0);
}

TEST(Sock, RecvAllEndsAtTheReceiveTimeOutButWaitsOutANonBlockingSocket)
{
    // A silent Wi-Fi phone: the adoption bounds the header read with SO_RCVTIMEO, and that bound
    // must end the read instead of being retried for ever.
    Connection c;
    connect_pair(c);
    const timeval timeout = {0, 200000};
    ASSERT_EQ(setsockopt(c.server, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout), 0);
    std::promise<ssize_t> done;
    std::future<ssize_t> result = done.get_future();
    std::thread reader([&] {
        char buf[68];
        done.set_value(sock_recv_all(c.server, buf, sizeof buf));
    });
    // Generous hang guard only: if the time-out is retried, free the reader and fail.
    const bool ended = result.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
    if (!ended)
        shutdown(c.server, SHUT_RDWR);
    reader.join();
    EXPECT_TRUE(ended) << "sock_recv_all kept retrying after the receive time-out";
    EXPECT_EQ(result.get(), 0);

    // A non-blocking socket (no time-out set) still waits for the whole request.
    Connection n;
    connect_pair(n);
    const int flags = fcntl(n.server, F_GETFL);
    ASSERT_EQ(fcntl(n.server, F_SETFL, flags | O_NONBLOCK), 0);
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        send(n.client, "wxyz", 4, 0);
    });
    char buf[4] = {};
    EXPECT_EQ(sock_recv_all(n.server, buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "wxyz");
    writer.join();
}

TEST(Sock, SendAllWithNothingToSendDoesNotTouchTheSocket)
{
    EXPECT_EQ(sock_send_all(-1, "", 0), 0);
    EXPECT_EQ(sock_send_all(-1, "abcd", 4), -1);
}

TEST(Sock, ListenAgainWhileTheLastConnectionIsInTimeWait)
{
    uint16_t port;
    {
        Connection c;
        connect_pair(c);
        port = local_port(c.listener);
        // Closing the accepted side first leaves the TIME_WAIT on our port.
        close(c.server);
        c.server = -1;
        char byte;
        EXPECT_EQ(recv(c.client, &byte, 1, 0), 0);
    }
    // Without SO_REUSEADDR the port is still taken ...
    const int plain = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_addr.s_addr = htonl(SOCK_ADDR_LOOPBACK);
    sin.sin_port = htons(port);
    EXPECT_EQ(bind(plain, reinterpret_cast<sockaddr*>(&sin), sizeof sin), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    close(plain);
    // ... but the daemon's listener gets it.
    const int again = sock_listen(SOCK_ADDR_LOOPBACK, port, 1);
    EXPECT_NE(again, -1);
    if (again != -1)
        close(again);
}

TEST(Sock, FailuresArePrintedAndLeaveNoDescriptor)
{
    const int probe = dup(0);
    close(probe);
    const int listener = sock_listen(SOCK_ADDR_LOOPBACK, 0, 1);
    ASSERT_NE(listener, -1);
    const uint16_t port = local_port(listener);

    int second = 0;
    EXPECT_EQ(capture_stderr([&] { second = sock_listen(SOCK_ADDR_LOOPBACK, port, 1); }),
              "bind: Address already in use\n");
    EXPECT_EQ(second, -1);
    close(listener);

    int refused = 0;
    EXPECT_EQ(capture_stderr([&] { refused = sock_connect(SOCK_ADDR_LOOPBACK, port); }),
              "connect: Connection refused\n");
    EXPECT_EQ(refused, -1);

    int accepted = 0;
    EXPECT_EQ(capture_stderr([&] { accepted = sock_accept(-1); }), "accept: Bad file descriptor\n");
    EXPECT_EQ(accepted, -1);

    // The lowest free descriptor is the same as before: nothing leaked.
    const int after = dup(0);
    EXPECT_EQ(after, probe);
    close(after);
}

TEST(Sock, DatagramListenerReceivesChunks)
{
    const int udp = sock_bind_udp(SOCK_ADDR_LOOPBACK, 0);
    ASSERT_NE(udp, -1);
    int rcvbuf = 0;
    socklen_t len = sizeof rcvbuf;
    getsockopt(udp, SOL_SOCKET, SO_RCVBUF, &rcvbuf, &len);
    const int fresh = socket(AF_INET, SOCK_DGRAM, 0);
    int default_rcvbuf = 0;
    getsockopt(fresh, SOL_SOCKET, SO_RCVBUF, &default_rcvbuf, &len);
    // Root may exceed the kernel's cap; either way the buffer was enlarged.
    EXPECT_GT(rcvbuf, default_rcvbuf);

    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(SOCK_ADDR_LOOPBACK);
    to.sin_port = htons(local_port(udp));
    ASSERT_EQ(sendto(fresh, "chunk", 5, 0, reinterpret_cast<sockaddr*>(&to), sizeof to), 5);
    char buf[16] = {};
    EXPECT_EQ(sock_recv(udp, buf, sizeof buf), 5);
    EXPECT_STREQ(buf, "chunk");

    int taken = 0;
    EXPECT_EQ(capture_stderr([&] { taken = sock_bind_udp(SOCK_ADDR_LOOPBACK, local_port(udp)); }),
              "bind: Address already in use\n");
    EXPECT_EQ(taken, -1);
    close(fresh);
    close(udp);
}

TEST(StrHelpers, CopyLimited)
{
    char buf[8];
    EXPECT_EQ(str_copy_limited(buf, "abc", sizeof buf), 3u);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(str_copy_limited(buf, "abcdefg", sizeof buf), 7u);
    EXPECT_STREQ(buf, "abcdefg");
    EXPECT_EQ(str_copy_limited(buf, "abcdefgh", sizeof buf), 8u);
    EXPECT_STREQ(buf, "abcdefg");
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(str_copy_limited(buf, "abc", 1), 1u);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(buf[1], 'x');
    EXPECT_EQ(str_copy_limited(buf, "", 1), 0u);
}

TEST(StrHelpers, Join)
{
    char buf[16];
    const char* abc[] = {"a", "b", "c", nullptr};
    char small[8];
    memset(small, 'x', sizeof small);
    EXPECT_EQ(str_join(small, abc, ',', 4), 4u);
    EXPECT_EQ(std::string(small, 4), std::string("a,b\0", 4));
    EXPECT_EQ(small[4], 'x');

    EXPECT_EQ(str_join(buf, abc, ',', sizeof buf), 5u);
    EXPECT_STREQ(buf, "a,b,c");
    // Exactly filling the buffer is not truncation.
    EXPECT_EQ(str_join(buf, abc, ',', 6), 5u);
    EXPECT_STREQ(buf, "a,b,c");
    EXPECT_EQ(str_join(buf, abc, ',', 5), 5u);
    EXPECT_STREQ(buf, "a,b,");

    const char* leading_empty[] = {"", "x", "", "y", nullptr};
    EXPECT_EQ(str_join(buf, leading_empty, ' ', sizeof buf), 4u);
    EXPECT_STREQ(buf, "x  y");

    const char* none[] = {nullptr};
    strcpy(buf, "kept");
    EXPECT_EQ(str_join(buf, none, ',', sizeof buf), 0u);
    EXPECT_STREQ(buf, "kept");
}

TEST(StrHelpers, Quote)
{
    char* q = str_quote("androidlink");
    ASSERT_NE(q, nullptr);
    EXPECT_STREQ(q, "\"androidlink\"");
    free(q);
    q = str_quote("");
    ASSERT_NE(q, nullptr);
    EXPECT_STREQ(q, "\"\"");
    free(q);
}
