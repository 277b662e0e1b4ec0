// The phone-side server's USB lifecycle against the adb stand-in and the phone simulator (real
// processes, real loopback sockets): the tunnel either way, the connection attempts, the unwinding.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "net/sock.h"
#include "server/phone_server.h"
#include "unit_support.h"

namespace {

std::string g_tmp, g_adb, g_bin_dir; // scratch dir, ADB symlink to fake-adb, the tools' directory

std::string read_file(const std::string& path)
{
    std::ifstream f(path);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

uint16_t free_port()
{
    const int s = sock_listen(SOCK_ADDR_LOOPBACK, 0, 1);
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
    close(s);
    return ntohs(a.sin_port);
}

// The adb stand-in (fake-adb, which runs phone-sim as the server) under a scratch directory.
class UsbServer : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        g_bin_dir = ORVANE_TOOLS_DIR;
        char tmpl[] = "/tmp/phone_server_test.XXXXXX";
        g_tmp = mkdtemp(tmpl);
        g_adb = g_tmp + "/adb";
        ASSERT_EQ(symlink((g_bin_dir + "/fake-adb").c_str(), g_adb.c_str()), 0);
        setenv("ADB", g_adb.c_str(), 1);
        setenv("FAKE_ADB_PHONE_SIM", (g_bin_dir + "/phone-sim").c_str(), 1);
        setenv("FAKE_ADB_STATE", (g_tmp + "/tunnels").c_str(), 1);
        setenv("PHONE_SIM_EVENTS", "frames=3", 1);
    }
    static void TearDownTestSuite() { std::system(("rm -rf '" + g_tmp + "'").c_str()); }
    void SetUp() override
    {
        ASSERT_EQ(access((g_bin_dir + "/fake-adb").c_str(), X_OK), 0) << "build fake-adb and phone-sim first";
        // Fresh logs of the tool and the simulator, and a fresh record.
        const std::string name = g_tmp + "/" + testing::UnitTest::GetInstance()->current_test_info()->name();
        setenv("FAKE_ADB_LOG", (adb_log_ = name + ".adb.log").c_str(), 1);
        setenv("PHONE_SIM_LOG", (sim_log_ = name + ".sim.log").c_str(), 1);
        setenv("PHONE_SIM_CONTROL_LOG", (control_log_ = name + ".control.log").c_str(), 1);
        phone_server_init(&server_);
        params_ = ServerParams{nullptr, free_port(), "640:360", 2000000, true};
        port_ = std::to_string(params_.local_port);
    }
    void TearDown() override
    {
        phone_server_stop(&server_);
        phone_server_close(&server_);
        unsetenv("FAKE_ADB_FAIL");
        unsetenv("FAKE_ADB_UNLINK_AFTER");
    }
    PhoneServer server_;
    ServerParams params_;
    std::string adb_log_, sim_log_, control_log_, port_;
};

} // namespace

// The reverse tunnel is the everyday path, which the system tests run end to end; here reverse is
// refused, so the daemon forwards and reads the server's first byte before the stream.
TEST_F(UsbServer, RefusedReverseFallsBackToForwardTakesVideoThenControlAndStopEndsTheServer)
{
    setenv("FAKE_ADB_FAIL", "reverse", 1);
    ASSERT_TRUE(phone_server_start(&server_, "ORVANE0001", &params_));
    ASSERT_TRUE(phone_server_connect(&server_));
    EXPECT_EQ(server_.server_socket, -1);
    EXPECT_FALSE(server_.tunnel_enabled) << "the tunnel is removed once both connections are in";
    // The first connection carries the device information, the second the control messages.
    uint8_t info[68];
    ASSERT_EQ(sock_recv_all(server_.video_socket, info, sizeof info), ssize_t(sizeof info));
    EXPECT_STREQ(reinterpret_cast<char*>(info), "Orvane Phone Simulator");
    const uint8_t key_back[] = {0, 0, 0, 0, 0, 4, 0, 0, 0, 0};
    ASSERT_EQ(sock_send_all(server_.control_socket, key_back, sizeof key_back), ssize_t(sizeof key_back));
    EXPECT_TRUE(wait_until(
        [&] {
            return read_file(control_log_).find("\"type\":\"keycode\",\"action\":0,\"keycode\":4") !=
                   std::string::npos;
        },
        5000));
    phone_server_stop(&server_);
    phone_server_close(&server_); // the connections once nothing reads them
    // The server's command line: size, bit rate, forward flag (8th), option, two flags (11 in all).
    // Stop does not remove a tunnel that is already gone.
    const std::string s = "-s ORVANE0001 ";
    EXPECT_EQ(read_file(adb_log_),
              s + "push /qvoprofile/qvoalink-server.jar /data/local/tmp/qvoalink-server.jar\n" + s +
                  "reverse localabstract:androidlink tcp:" + port_ + "\n" + s + "forward tcp:" + port_ +
                  " localabstract:androidlink\n" + s +
                  "shell CLASSPATH=/data/local/tmp/qvoalink-server.jar app_process / "
                  "com.qvo.alink.Server 640:360 2000000 true - true true\n" +
                  s + "forward --remove tcp:" + port_ + "\n");
    EXPECT_TRUE(server_.process == -1 && server_.video_socket == -1 && server_.control_socket == -1);
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << "a child is left";
    // fake-adb passed the termination on and waited: the simulator has already finished.
    EXPECT_NE(read_file(sim_log_).find("\nend: "), std::string::npos) << read_file(sim_log_);
}

// Like adb itself when nothing listens on the phone: the tunnel accepts and closes at once.
TEST_F(UsbServer, ForwardWithoutAnswerGivesUpAfterHundredAttempts)
{
    // A server that runs but never answers; adb's side of the tunnel takes each connection and drops it.
    setenv("FAKE_ADB_FAIL", "reverse", 1);
    setenv("PHONE_SIM_EVENTS", "never-connect", 1);
    const int tunnel = sock_listen(SOCK_ADDR_LOOPBACK, params_.local_port, 8);
    ASSERT_NE(tunnel, -1);
    std::atomic<int> accepted{0};
    std::thread adb_side([&] {
        for (int c; (c = accept(tunnel, nullptr, nullptr)) >= 0; ++accepted)
            close(c);
    });
    EXPECT_TRUE(phone_server_start(&server_, nullptr, &params_));
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(phone_server_connect(&server_));
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::seconds(10))
        << "100 ms after every attempt";
    EXPECT_EQ(server_.video_socket, -1);
    phone_server_stop(&server_);
    shutdown(tunnel, SHUT_RDWR);
    adb_side.join();
    close(tunnel);
    EXPECT_EQ(accepted.load(), 100);
    // The launch was made, so stop still owns the tunnel and removes it.
    const std::string calls = read_file(adb_log_), last = "\nforward --remove tcp:" + port_ + "\n";
    EXPECT_EQ(calls.rfind(last), calls.size() - last.size()) << calls;
}

TEST_F(UsbServer, FailedStartsUnwindTheTunnel)
{
    params_.local_port = PHONE_SERVER_PORT;
    const int squatter = sock_listen(SOCK_ADDR_LOOPBACK, PHONE_SERVER_PORT, 8);
    ASSERT_NE(squatter, -1) << "port 27555 in use";
    StdoutCapture out;
    EXPECT_FALSE(phone_server_start(&server_, "ORVANE0001", &params_));
    EXPECT_NE(out.text().find("Could not listen on port 27555\n"), std::string::npos);
    close(squatter);
    EXPECT_EQ(read_file(adb_log_), "-s ORVANE0001 push /qvoprofile/qvoalink-server.jar "
                                   "/data/local/tmp/qvoalink-server.jar\n"
                                   "-s ORVANE0001 reverse localabstract:androidlink tcp:27555\n"
                                   "-s ORVANE0001 reverse --remove localabstract:androidlink\n");
    EXPECT_FALSE(server_.tunnel_enabled);

    // The tool vanishes after the reverse: the launch cannot be started at all.
    setenv("FAKE_ADB_UNLINK_AFTER", ("reverse:" + g_adb).c_str(), 1);
    StdoutCapture unlinked;
    EXPECT_FALSE(phone_server_start(&server_, nullptr, &params_));
    const std::string text = unlinked.text();
    ASSERT_EQ(symlink((g_bin_dir + "/fake-adb").c_str(), g_adb.c_str()), 0);
    EXPECT_NE(text.find("Command not found: [" + g_adb + "], [shell]"), std::string::npos) << text;
    EXPECT_NE(text.find("Could not execute \"adb reverse --remove\""), std::string::npos) << text;
    EXPECT_TRUE(server_.process == -1 && server_.serial == nullptr && !server_.tunnel_enabled);
    // The listening socket is really gone: the port can be taken again.
    const int again = sock_listen(SOCK_ADDR_LOOPBACK, params_.local_port, 8);
    EXPECT_NE(again, -1);
    close(again);
    // Children whose exec failed are left for the caller; collect them here.
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}
