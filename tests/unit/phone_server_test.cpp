// Phone-side server lifecycle against the adb stand-in and the phone simulator (real processes,
// real loopback sockets), the real adb tool without a phone, and the Wi-Fi accept thread.
#include <gtest/gtest.h>

#include <QCoreApplication>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "net/sock.h"
#include "server/net_accept_thread.h"
#include "server/phone_server.h"
#include "video/app_events.h"

namespace {

std::string g_tmp, g_adb, g_bin_dir; // scratch dir, ADB symlink to fake-adb, build/bin

std::string read_file(const std::string& path)
{
    std::stringstream ss;
    ss << std::ifstream(path).rdbuf();
    return ss.str();
}

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> out;
    std::stringstream ss(text);
    for (std::string line; std::getline(ss, line);)
        out.push_back(line);
    return out;
}

// What fn printed: into a file, not a pipe, as the simulator inherits stdout and may outlive fn.
std::string stdout_of(const std::function<void()>& fn)
{
    fflush(stdout);
    FILE* file = tmpfile();
    const int saved = dup(STDOUT_FILENO);
    dup2(fileno(file), STDOUT_FILENO);
    fn();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string out(size_t(lseek(fileno(file), 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(fileno(file), &out[0], out.size(), 0), ssize_t(out.size()));
    fclose(file);
    return out;
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

// True once the peer has closed fd (bounded wait).
bool peer_closed(int fd)
{
    timeval tv{3, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    char c;
    return recv(fd, &c, 1, 0) == 0;
}

// Descriptors the accept thread writes are read here without a lock.
int fd_of(const int* field)
{
    return __atomic_load_n(field, __ATOMIC_RELAXED);
}

// Whether any child process of ours is left (running or unreaped).
bool have_children()
{
    return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD;
}

// The adb stand-in (fake-adb, which runs phone-sim as the server) under a scratch directory.
class UsbServer : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        const char* build = getenv("ORVANE_BUILD_DIR");
        g_bin_dir = std::string(build != nullptr ? build : ".") + "/bin";
        char tmpl[] = "/tmp/phone_server_test.XXXXXX";
        g_tmp = mkdtemp(tmpl);
        g_adb = g_tmp + "/adb";
        ASSERT_EQ(symlink((g_bin_dir + "/fake-adb").c_str(), g_adb.c_str()), 0);
        setenv("ADB", g_adb.c_str(), 1);
        setenv("FAKE_ADB_PHONE_SIM", (g_bin_dir + "/phone-sim").c_str(), 1);
        setenv("FAKE_ADB_STATE", (g_tmp + "/tunnels").c_str(), 1);
    }
    static void TearDownTestSuite() { std::system(("rm -rf '" + g_tmp + "'").c_str()); }
    void SetUp() override
    {
        ASSERT_EQ(access((g_bin_dir + "/fake-adb").c_str(), X_OK), 0) << "build fake-adb and phone-sim first";
        use_logs("");
        setenv("PHONE_SIM_EVENTS", "frames=3", 1);
        params_ = ServerParams{nullptr, free_port(), "640:360", 2000000, true};
        port_ = std::to_string(params_.local_port);
    }
    void TearDown() override
    {
        phone_server_stop(&server_);
        unsetenv("FAKE_ADB_FAIL");
        unsetenv("FAKE_ADB_UNLINK_AFTER");
    }
    // Fresh logs of the tool and the simulator, and a fresh record.
    void use_logs(const std::string& tag)
    {
        const std::string name =
            g_tmp + "/" + testing::UnitTest::GetInstance()->current_test_info()->name() + tag;
        setenv("FAKE_ADB_LOG", (adb_log_ = name + ".adb.log").c_str(), 1);
        setenv("PHONE_SIM_LOG", (sim_log_ = name + ".sim.log").c_str(), 1);
        setenv("PHONE_SIM_CONTROL_LOG", (control_log_ = name + ".control.log").c_str(), 1);
        phone_server_init(&server_);
    }

    PhoneServer server_;
    ServerParams params_;
    std::string adb_log_, sim_log_, control_log_, port_;
};

TEST_F(UsbServer, TunnelEitherWayTakesVideoThenControlAndStopEndsTheServer)
{
    // The server's command line: size, bit rate, forward flag (8th), option, two flags (11 in all).
    const std::string launch = "shell CLASSPATH=/data/local/tmp/qvoalink-server.jar app_process / "
                               "com.qvo.alink.Server 640:360 2000000 ";
    const std::string push = "push /qvoprofile/qvoalink-server.jar /data/local/tmp/qvoalink-server.jar\n";
    const struct {
        const char* fail;
        const char* serial;
        std::string calls, message;
    } cases[] = {
        {"", "ORVANE0001",
         "-s ORVANE0001 " + push + "-s ORVANE0001 reverse localabstract:androidlink tcp:" + port_ +
             "\n-s ORVANE0001 " + launch + "false - true true\n" +
             "-s ORVANE0001 reverse --remove localabstract:androidlink\n",
         ""},
        // Reverse refused: forward, and the server's first byte is read before the stream.
        {"reverse", nullptr,
         push + "reverse localabstract:androidlink tcp:" + port_ + "\nforward tcp:" + port_ +
             " localabstract:androidlink\n" + launch + "true - true true\nforward --remove tcp:" + port_ +
             "\n",
         "'adb reverse' failed, fallback to 'adb forward'\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fail);
        use_logs(c.fail);
        setenv("FAKE_ADB_FAIL", c.fail, 1);
        const std::string text = stdout_of([&] {
            ASSERT_TRUE(phone_server_start(&server_, c.serial, &params_));
            ASSERT_TRUE(phone_server_connect(&server_));
            EXPECT_EQ(fd_of(&server_.server_socket), -1);
            EXPECT_FALSE(server_.tunnel_enabled) << "the tunnel is removed once both connections are in";
            // The first connection carries the device information, the second the control messages.
            uint8_t info[68];
            ASSERT_EQ(sock_recv_all(fd_of(&server_.video_socket), info, sizeof info), ssize_t(sizeof info));
            EXPECT_STREQ(reinterpret_cast<char*>(info), "Orvane Phone Simulator");
            EXPECT_EQ(info[64] << 8 | info[65], 640);
            EXPECT_EQ(info[66] << 8 | info[67], 360);
            const uint8_t key_back[] = {0, 0, 0, 0, 0, 4, 0, 0, 0, 0};
            ASSERT_EQ(sock_send_all(server_.control_socket, key_back, sizeof key_back),
                      ssize_t(sizeof key_back));
            for (int i = 0; i < 500 && read_file(control_log_).empty(); ++i)
                usleep(10000);
            EXPECT_NE(read_file(control_log_).find("\"type\":\"keycode\",\"action\":0,\"keycode\":4"),
                      std::string::npos);
            phone_server_stop(&server_);
        });
        // Stop does not remove a tunnel that is already gone.
        EXPECT_EQ(read_file(adb_log_), c.calls);
        EXPECT_NE(text.find(c.message), std::string::npos) << text;
        EXPECT_NE(text.find("Server terminated\n"), std::string::npos) << text;
        EXPECT_EQ(server_.process, -1);
        EXPECT_EQ(fd_of(&server_.video_socket), -1);
        EXPECT_EQ(server_.control_socket, -1);
        EXPECT_FALSE(have_children());
        // fake-adb passed the termination on and waited: the simulator has already finished.
        EXPECT_NE(read_file(sim_log_).find("\nend: "), std::string::npos) << read_file(sim_log_);
    }
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
    const std::string text = stdout_of([&] {
        ASSERT_TRUE(phone_server_start(&server_, nullptr, &params_));
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_FALSE(phone_server_connect(&server_));
        EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::seconds(10))
            << "100 ms after every attempt";
        EXPECT_EQ(fd_of(&server_.video_socket), -1);
        phone_server_stop(&server_);
    });
    shutdown(tunnel, SHUT_RDWR);
    adb_side.join();
    close(tunnel);
    EXPECT_EQ(accepted.load(), 100);
    std::string attempts;
    for (int i = 100; i > 0; --i)
        attempts += "Remaining connection attempts: " + std::to_string(i) + "\n";
    EXPECT_NE(text.find(attempts), std::string::npos) << text;
    // The launch was made, so stop still owns the tunnel and removes it.
    EXPECT_EQ(lines_of(read_file(adb_log_)).back(), "forward --remove tcp:" + port_);
}

TEST_F(UsbServer, FailedStartsUnwindTheTunnel)
{
    params_.local_port = PHONE_SERVER_PORT;
    const int squatter = sock_listen(SOCK_ADDR_LOOPBACK, PHONE_SERVER_PORT, 8);
    ASSERT_NE(squatter, -1) << "port 27555 in use";
    EXPECT_NE(stdout_of([&] {
                  EXPECT_FALSE(phone_server_start(&server_, "ORVANE0001", &params_));
              }).find("Could not listen on port 27555\n"),
              std::string::npos);
    close(squatter);
    EXPECT_EQ(read_file(adb_log_), "-s ORVANE0001 push /qvoprofile/qvoalink-server.jar "
                                   "/data/local/tmp/qvoalink-server.jar\n"
                                   "-s ORVANE0001 reverse localabstract:androidlink tcp:27555\n"
                                   "-s ORVANE0001 reverse --remove localabstract:androidlink\n");
    EXPECT_FALSE(server_.tunnel_enabled);

    // The tool vanishes after the reverse: the launch cannot be started at all.
    setenv("FAKE_ADB_UNLINK_AFTER", ("reverse:" + g_adb).c_str(), 1);
    const std::string text =
        stdout_of([&] { EXPECT_FALSE(phone_server_start(&server_, nullptr, &params_)); });
    ASSERT_EQ(symlink((g_bin_dir + "/fake-adb").c_str(), g_adb.c_str()), 0);
    EXPECT_NE(text.find("Command not found: [" + g_adb + "], [shell]"), std::string::npos) << text;
    EXPECT_NE(text.find("Could not execute \"adb reverse --remove\""), std::string::npos) << text;
    EXPECT_EQ(server_.process, -1);
    EXPECT_EQ(server_.serial, nullptr);
    EXPECT_FALSE(server_.tunnel_enabled);
    // The listening socket is really gone: the port can be taken again.
    const int again = sock_listen(SOCK_ADDR_LOOPBACK, params_.local_port, 8);
    EXPECT_NE(again, -1);
    close(again);
    // Children whose exec failed are left for the caller; collect them here.
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

// ADB is read once per process, so the real tool is tried in a fresh run of this test binary.
TEST(RealAdb, StartFailsAtThePushAndLeavesNothingRunning)
{
    const char* real_adb = "/usr/bin/adb";
    if (access(real_adb, X_OK) != 0)
        GTEST_SKIP() << "no adb installed";
    if (getenv("ADB") != nullptr && std::string(getenv("ADB")) == real_adb) {
        PhoneServer server;
        phone_server_init(&server);
        ServerParams params{nullptr, free_port(), "1280:720", 8000000, true};
        EXPECT_FALSE(phone_server_start(&server, nullptr, &params));
        EXPECT_EQ(server.process, -1);
        EXPECT_FALSE(have_children());
        return;
    }
    char out_path[] = "/tmp/phone_server_test_real_adb.XXXXXX";
    close(mkstemp(out_path));
    const pid_t pid = fork();
    if (pid == 0) {
        freopen(out_path, "w", stdout);
        setenv("ADB", real_adb, 1);
        execl("/proc/self/exe", "phone_server_test", "--gtest_filter=RealAdb.*", static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    // Starting a server to look for phones is adb's own doing; do not leave it behind.
    EXPECT_EQ(std::system("/usr/bin/adb kill-server >/dev/null 2>&1"), 0);
    const std::string text = read_file(out_path);
    unlink(out_path);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
    EXPECT_NE(text.find("\"adb push\" returned with value 1\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("adb reverse"), std::string::npos) << text;
}

// Counts the connection events (2028) the accept thread posts to the application.
class ClientConnectedCounter : public QObject
{
public:
    std::atomic<int> count{0};
    bool wait_for(int n, int ms)
    {
        for (int i = 0; i < ms / 10 && count < n; ++i) {
            QCoreApplication::processEvents();
            usleep(10000);
        }
        QCoreApplication::processEvents();
        return count >= n;
    }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() != EVENT_CLIENT_CONNECTED)
            return QObject::eventFilter(watched, event);
        ++count;
        return true;
    }
};

TEST(WifiServer, FirstPhoneIsTakenNewcomerTurnedAwayDeadPhoneReplaced)
{
    int argc = 1;
    char name[] = "phone_server_test";
    char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);
    ClientConnectedCounter counter;
    app.installEventFilter(&counter);
    PhoneServer server;
    phone_server_init(&server);
    int first_fd = -1, third_fd = -1;
    const std::string text = stdout_of([&] {
        ASSERT_TRUE(phone_server_start_wifi(&server)) << "port 27555 in use";
        const int first = sock_connect(SOCK_ADDR_LOOPBACK, PHONE_SERVER_PORT);
        ASSERT_TRUE(counter.wait_for(1, 3000));
        first_fd = fd_of(&server.video_socket);

        // While the first phone is healthy a second one is accepted and closed, without an event.
        const int second = sock_connect(SOCK_ADDR_LOOPBACK, PHONE_SERVER_PORT);
        EXPECT_TRUE(peer_closed(second));
        close(second);
        EXPECT_FALSE(counter.wait_for(2, 200));
        EXPECT_EQ(fd_of(&server.video_socket), first_fd);

        // The first phone drops with a reset: the next one replaces it.
        const linger reset{1, 0};
        setsockopt(first, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        close(first);
        usleep(100000);
        const int third = sock_connect(SOCK_ADDR_LOOPBACK, PHONE_SERVER_PORT);
        ASSERT_TRUE(counter.wait_for(2, 3000));
        third_fd = fd_of(&server.video_socket);
        // The daemon's end of the new connection is the video socket: bytes sent there arrive.
        char c = 0;
        EXPECT_EQ(sock_send_all(third_fd, "x", 1), 1);
        EXPECT_EQ(recv(third, &c, 1, 0), 1);
        phone_server_stop(&server);
        EXPECT_TRUE(peer_closed(third));
        close(third);
    });
    phone_server_stop(&server);
    EXPECT_EQ(server.accept_thread, nullptr);
    EXPECT_EQ(fd_of(&server.server_socket), -1);
    const std::vector<std::string>
        lines = lines_of(text),
        expected = {
            "mirroring client connected, socket:" + std::to_string(first_fd) + "!",
            "mirroring is connected, will close accept socket:", // newcomer's descriptor follows
            "mirroring use new client connection, old socket:" + std::to_string(first_fd) +
                ", new socket:" + std::to_string(third_fd) + "!",
            "mirroring server socket error, accept stoped!",
            "mirroring accept thread end!",
        };
    ASSERT_EQ(lines.size(), expected.size()) << text;
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_EQ(lines[i].compare(0, expected[i].size(), expected[i]), 0) << lines[i];
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

} // namespace
