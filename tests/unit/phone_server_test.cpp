// Phone-side server lifecycle against the adb stand-in and the phone simulator (real processes,
// real loopback sockets): the USB tunnel in both directions with its fallbacks and unwinding, the
// stop order, the real adb tool without a phone, and the Wi-Fi listener with its accept thread.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QEvent>
#include <QObject>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "server/net_accept_thread.h"
#include "server/phone_server.h"
#include "video/app_events.h"

extern char** environ;

namespace {

std::string g_tmp;     // per-run scratch directory
std::string g_adb;     // symlink to fake-adb that the daemon code runs as ADB
std::string g_bin_dir; // build/bin

std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> out;
    std::stringstream ss(text);
    std::string line;
    while (std::getline(ss, line))
        out.push_back(line);
    return out;
}

// stdout goes to a file, not a pipe: the simulator inherits it and may outlive the capture.
class StdoutCapture
{
public:
    StdoutCapture()
    {
        static int n = 0;
        path_ = g_tmp + "/stdout." + std::to_string(++n);
        fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, STDOUT_FILENO);
        close(fd);
    }
    ~StdoutCapture() { finish(); }
    std::string finish()
    {
        if (saved_ >= 0) {
            fflush(stdout);
            dup2(saved_, STDOUT_FILENO);
            close(saved_);
            saved_ = -1;
        }
        return read_file(path_);
    }

private:
    std::string path_;
    int saved_ = -1;
};

uint16_t free_port()
{
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
    close(s);
    return ntohs(a.sin_port);
}

// SO_REUSEADDR so that connections of earlier tests lingering in TIME_WAIT do not block it;
// a listening socket still keeps every other listener off the port.
int listen_on(uint32_t addr, uint16_t port)
{
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(addr);
    if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(s, 8) != 0) {
        close(s);
        return -1;
    }
    return s;
}

int listen_loopback(uint16_t port)
{
    return listen_on(INADDR_LOOPBACK, port);
}

int connect_loopback(uint16_t port)
{
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(s);
        return -1;
    }
    return s;
}

bool recv_exact(int fd, void* buf, size_t len)
{
    size_t got = 0;
    while (got < len) {
        const ssize_t n = recv(fd, static_cast<char*>(buf) + got, len - got, 0);
        if (n <= 0)
            return false;
        got += size_t(n);
    }
    return true;
}

// True once the peer has closed fd (bounded wait).
bool peer_closed(int fd, int timeout_ms)
{
    timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    char c;
    return recv(fd, &c, 1, 0) == 0;
}

int fd_of(const int* field)
{
    return __atomic_load_n(field, __ATOMIC_RELAXED);
}

// Tells whether any child process of ours is left (running or unreaped).
bool have_children()
{
    return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD;
}

class AdbStandIn : public ::testing::Environment
{
public:
    void SetUp() override
    {
        const char* build = getenv("ORVANE_BUILD_DIR");
        g_bin_dir = std::string(build != nullptr ? build : ".") + "/bin";
        char tmpl[] = "/tmp/phone_server_test.XXXXXX";
        g_tmp = mkdtemp(tmpl);
        g_adb = g_tmp + "/adb";
        // The tool path is taken once per process; the real-adb case runs in its own process.
        if (getenv("PHONE_SERVER_TEST_REAL_ADB") == nullptr) {
            ASSERT_EQ(symlink((g_bin_dir + "/fake-adb").c_str(), g_adb.c_str()), 0);
            setenv("ADB", g_adb.c_str(), 1);
            setenv("FAKE_ADB_PHONE_SIM", (g_bin_dir + "/phone-sim").c_str(), 1);
        }
        setenv("FAKE_ADB_STATE", (g_tmp + "/tunnels").c_str(), 1);
    }
    void TearDown() override
    {
        const std::string cmd = "rm -rf '" + g_tmp + "'";
        if (system(cmd.c_str()) != 0)
            fprintf(stderr, "could not remove %s\n", g_tmp.c_str());
    }
};

const auto* const g_env = ::testing::AddGlobalTestEnvironment(new AdbStandIn);

class UsbServer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(access((g_bin_dir + "/fake-adb").c_str(), X_OK), 0) << "build fake-adb and phone-sim first";
        const std::string name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        adb_log_ = g_tmp + "/" + name + ".adb.log";
        sim_log_ = g_tmp + "/" + name + ".sim.log";
        control_log_ = g_tmp + "/" + name + ".control.log";
        setenv("FAKE_ADB_LOG", adb_log_.c_str(), 1);
        setenv("PHONE_SIM_LOG", sim_log_.c_str(), 1);
        setenv("PHONE_SIM_CONTROL_LOG", control_log_.c_str(), 1);
        setenv("PHONE_SIM_EVENTS", "frames=3", 1);
        unsetenv("FAKE_ADB_FAIL");
        unsetenv("FAKE_ADB_UNLINK_AFTER");
        phone_server_init(&server_);
        params_ = ServerParams{nullptr, free_port(), "640:360", 2000000, true};
    }
    void TearDown() override
    {
        phone_server_stop(&server_);
        unsetenv("FAKE_ADB_FAIL");
        unsetenv("FAKE_ADB_UNLINK_AFTER");
    }

    std::vector<std::string> adb_calls() const { return lines_of(read_file(adb_log_)); }
    std::string launch_line(const char* forward) const
    {
        return "shell CLASSPATH=/data/local/tmp/qvoalink-server.jar app_process / com.qvo.alink.Server "
               "640:360 2000000 " +
               std::string(forward) + " - true true";
    }
    std::string port_text() const { return std::to_string(params_.local_port); }

    PhoneServer server_;
    ServerParams params_;
    std::string adb_log_, sim_log_, control_log_;
};

TEST_F(UsbServer, ReverseTunnelTakesVideoThenControlAndRemovesTheTunnel)
{
    StdoutCapture out;
    const char serial[] = "ORVANE0001";
    ASSERT_TRUE(phone_server_start(&server_, serial, &params_));
    EXPECT_NE(server_.serial, serial);
    EXPECT_STREQ(server_.serial, serial);
    EXPECT_NE(server_.process, -1);
    EXPECT_TRUE(server_.tunnel_enabled);
    EXPECT_FALSE(server_.tunnel_forward);
    EXPECT_NE(fd_of(&server_.server_socket), -1);

    ASSERT_TRUE(phone_server_connect(&server_));
    EXPECT_EQ(fd_of(&server_.server_socket), -1);
    EXPECT_FALSE(server_.tunnel_enabled);
    const std::vector<std::string> expected = {
        "-s ORVANE0001 push /qvoprofile/qvoalink-server.jar /data/local/tmp/qvoalink-server.jar",
        "-s ORVANE0001 reverse localabstract:androidlink tcp:" + port_text(),
        "-s ORVANE0001 " + launch_line("false"),
        "-s ORVANE0001 reverse --remove localabstract:androidlink",
    };
    EXPECT_EQ(adb_calls(), expected);

    // The first connection carries the device information, the second the control messages.
    uint8_t info[68];
    ASSERT_TRUE(recv_exact(fd_of(&server_.video_socket), info, sizeof info));
    EXPECT_STREQ(reinterpret_cast<char*>(info), "Orvane Phone Simulator");
    EXPECT_EQ(info[64] << 8 | info[65], 640);
    EXPECT_EQ(info[66] << 8 | info[67], 360);
    const uint8_t key_back[] = {0, 0, 0, 0, 0, 4, 0, 0, 0, 0};
    ASSERT_EQ(send(server_.control_socket, key_back, sizeof key_back, 0), ssize_t(sizeof key_back));
    for (int i = 0; i < 200 && read_file(control_log_).empty(); ++i)
        usleep(10000);
    EXPECT_NE(read_file(control_log_).find("\"type\":\"keycode\",\"action\":0,\"keycode\":4"),
              std::string::npos);

    phone_server_stop(&server_);
    const std::string text = out.finish();
    EXPECT_NE(text.find("Server terminated\n"), std::string::npos);
    EXPECT_EQ(text.find("Could not"), std::string::npos) << text;
    EXPECT_EQ(server_.process, -1);
    EXPECT_EQ(fd_of(&server_.video_socket), -1);
    EXPECT_EQ(server_.control_socket, -1);
    EXPECT_EQ(server_.serial, nullptr);
    EXPECT_FALSE(have_children());
    // fake-adb passed the termination on and waited: the simulator has already finished (seeing
    // either the closed sockets or the signal first).
    EXPECT_NE(read_file(sim_log_).find("\nend: "), std::string::npos) << read_file(sim_log_);
    EXPECT_EQ(adb_calls().size(), 4u) << "the tunnel was already removed; stop must not remove it again";
}

TEST_F(UsbServer, RefusedReverseFallsBackToForward)
{
    setenv("FAKE_ADB_FAIL", "reverse", 1);
    StdoutCapture out;
    ASSERT_TRUE(phone_server_start(&server_, nullptr, &params_));
    EXPECT_TRUE(server_.tunnel_forward);
    EXPECT_EQ(fd_of(&server_.server_socket), -1) << "forward mode connects out, it does not listen";
    ASSERT_TRUE(phone_server_connect(&server_));
    const std::vector<std::string> expected = {
        "push /qvoprofile/qvoalink-server.jar /data/local/tmp/qvoalink-server.jar",
        "reverse localabstract:androidlink tcp:" + port_text(),
        "forward tcp:" + port_text() + " localabstract:androidlink",
        launch_line("true"),
        "forward --remove tcp:" + port_text(),
    };
    EXPECT_EQ(adb_calls(), expected);

    // The server's first byte was consumed: the stream starts right at the device information.
    uint8_t info[68];
    ASSERT_TRUE(recv_exact(fd_of(&server_.video_socket), info, sizeof info));
    EXPECT_STREQ(reinterpret_cast<char*>(info), "Orvane Phone Simulator");
    EXPECT_NE(server_.control_socket, -1);

    phone_server_stop(&server_);
    const std::string text = out.finish();
    EXPECT_NE(text.find("'adb reverse' failed, fallback to 'adb forward'\n"), std::string::npos);
    EXPECT_NE(text.find("\"adb reverse\" returned with value 1\n"), std::string::npos);
    EXPECT_NE(text.find("Remaining connection attempts: 100\n"), std::string::npos);
    EXPECT_NE(text.find("Server terminated\n"), std::string::npos);
    EXPECT_FALSE(have_children());
}

// Like adb itself when nothing listens on the phone: the tunnel accepts and closes at once.
TEST_F(UsbServer, ForwardWithoutAnswerGivesUpAfterHundredAttempts)
{
    setenv("FAKE_ADB_FAIL", "reverse,launch", 1);
    const int tunnel = listen_loopback(params_.local_port);
    ASSERT_NE(tunnel, -1);
    std::atomic<int> accepted{0};
    std::thread adb_side([&] {
        int c;
        while ((c = accept(tunnel, nullptr, nullptr)) >= 0) {
            ++accepted;
            close(c);
        }
    });

    StdoutCapture out;
    ASSERT_TRUE(phone_server_start(&server_, nullptr, &params_));
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(phone_server_connect(&server_));
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_EQ(fd_of(&server_.video_socket), -1);
    phone_server_stop(&server_);
    const std::string text = out.finish();
    shutdown(tunnel, SHUT_RDWR);
    adb_side.join();
    close(tunnel);

    EXPECT_GE(secs, 10.0) << "100 ms after every attempt, the last one included";
    EXPECT_LT(secs, 20.0);
    EXPECT_EQ(accepted.load(), 100);
    std::vector<std::string> attempts;
    for (const std::string& l : lines_of(text))
        if (l.rfind("Remaining connection attempts: ", 0) == 0)
            attempts.push_back(l);
    ASSERT_EQ(attempts.size(), 100u);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(attempts[size_t(i)], "Remaining connection attempts: " + std::to_string(100 - i));
    // The launch was made, so stop still owns the tunnel and removes it.
    EXPECT_EQ(adb_calls().back(), "forward --remove tcp:" + port_text());
    EXPECT_NE(text.find("Server terminated\n"), std::string::npos);
}

// A port of its own rather than 27555: ctest runs these cases in parallel with the Wi-Fi ones.
TEST_F(UsbServer, BusyPortUnwindsTheTunnel)
{
    const int squatter = listen_loopback(params_.local_port);
    ASSERT_NE(squatter, -1);
    StdoutCapture out;
    EXPECT_FALSE(phone_server_start(&server_, "ORVANE0001", &params_));
    const std::string text = out.finish();
    close(squatter);
    EXPECT_NE(text.find("Could not listen on port " + port_text() + "\n"), std::string::npos) << text;
    const std::vector<std::string> expected = {
        "-s ORVANE0001 push /qvoprofile/qvoalink-server.jar /data/local/tmp/qvoalink-server.jar",
        "-s ORVANE0001 reverse localabstract:androidlink tcp:" + port_text(),
        "-s ORVANE0001 reverse --remove localabstract:androidlink",
    };
    EXPECT_EQ(adb_calls(), expected);
    EXPECT_EQ(server_.serial, nullptr);
    EXPECT_FALSE(server_.tunnel_enabled);
    EXPECT_EQ(fd_of(&server_.server_socket), -1);
}

TEST_F(UsbServer, FailedStepsUnwindWhatWasSetUp)
{
    {
        setenv("FAKE_ADB_FAIL", "push", 1);
        StdoutCapture out;
        EXPECT_FALSE(phone_server_start(&server_, "ORVANE0001", &params_));
        EXPECT_NE(out.finish().find("\"adb push\" returned with value 1\n"), std::string::npos);
        EXPECT_EQ(adb_calls().size(), 1u);
        EXPECT_EQ(server_.serial, nullptr);
    }
    {
        setenv("FAKE_ADB_FAIL", "reverse,forward", 1);
        StdoutCapture out;
        phone_server_init(&server_);
        EXPECT_FALSE(phone_server_start(&server_, nullptr, &params_));
        const std::string text = out.finish();
        EXPECT_NE(text.find("\"adb forward\" returned with value 1\n"), std::string::npos) << text;
        EXPECT_EQ(adb_calls().back(), "forward tcp:" + port_text() + " localabstract:androidlink");
        EXPECT_EQ(server_.process, -1);
    }
    {
        // The tool vanishes after the reverse: the launch cannot be started at all.
        unsetenv("FAKE_ADB_FAIL");
        setenv("FAKE_ADB_UNLINK_AFTER", ("reverse:" + g_adb).c_str(), 1);
        StdoutCapture out;
        phone_server_init(&server_);
        EXPECT_FALSE(phone_server_start(&server_, nullptr, &params_));
        const std::string text = out.finish();
        ASSERT_EQ(symlink((g_bin_dir + "/fake-adb").c_str(), g_adb.c_str()), 0);
        EXPECT_NE(text.find("Command not found: [" + g_adb + "], [shell]"), std::string::npos) << text;
        EXPECT_NE(text.find("Could not execute \"adb reverse --remove\""), std::string::npos) << text;
        EXPECT_EQ(server_.process, -1);
        EXPECT_EQ(server_.serial, nullptr);
        EXPECT_EQ(fd_of(&server_.server_socket), -1);
        EXPECT_FALSE(server_.tunnel_enabled);
        // The listening socket is really gone: the port can be taken again.
        const int again = listen_loopback(params_.local_port);
        EXPECT_NE(again, -1);
        close(again);
        // Children whose exec failed are left for the caller; collect them here.
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
    }
}

TEST_F(UsbServer, StopOnAFreshRecordDoesNothing)
{
    StdoutCapture out;
    phone_server_stop(&server_);
    EXPECT_EQ(out.finish(), "");
    EXPECT_EQ(read_file(adb_log_), "");
}

// The real adb tool with no phone attached. ADB is read once per process, so the test runs
// itself again in a fresh process with ADB pointing at it.
TEST(RealAdb, StartFailsAtThePushAndLeavesNothingRunning)
{
    const char* real_adb = "/usr/bin/adb";
    if (access(real_adb, X_OK) != 0)
        GTEST_SKIP() << "no adb installed";
    if (getenv("PHONE_SERVER_TEST_REAL_ADB") != nullptr) {
        PhoneServer server;
        phone_server_init(&server);
        ServerParams params{nullptr, free_port(), "1280:720", 8000000, true};
        EXPECT_FALSE(phone_server_start(&server, nullptr, &params));
        EXPECT_EQ(server.process, -1);
        EXPECT_FALSE(have_children());
        return;
    }
    const std::string out_path = g_tmp + "/real_adb.out";
    std::string self(4096, '\0');
    self.resize(size_t(readlink("/proc/self/exe", &self[0], self.size() - 1)));
    char filter[] = "--gtest_filter=RealAdb.*";
    char* argv[] = {&self[0], filter, nullptr};
    std::vector<std::string> env_text = {"PHONE_SERVER_TEST_REAL_ADB=1", std::string("ADB=") + real_adb};
    for (char** e = environ; *e != nullptr; ++e)
        if (strncmp(*e, "ADB=", 4) != 0)
            env_text.push_back(*e);
    std::vector<char*> env;
    for (std::string& s : env_text)
        env.push_back(&s[0]);
    env.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, STDOUT_FILENO, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    pid_t pid;
    ASSERT_EQ(posix_spawn(&pid, self.c_str(), &fa, nullptr, argv, env.data()), 0);
    posix_spawn_file_actions_destroy(&fa);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    // Starting a server to look for phones is adb's own doing; do not leave it behind.
    EXPECT_EQ(system("/usr/bin/adb kill-server >/dev/null 2>&1"), 0);
    const std::string text = read_file(out_path);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
    EXPECT_NE(text.find("\"adb push\" returned with value 1\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("adb reverse"), std::string::npos) << text;
}

// Counts the connection events the accept thread posts.
class ClientConnectedCounter : public QObject
{
public:
    std::atomic<int> count{0};

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == EVENT_CLIENT_CONNECTED) {
            ++count;
            return true;
        }
        return QObject::eventFilter(watched, event);
    }
};

class WifiServer : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        static int argc = 1;
        static char name[] = "phone_server_test";
        static char* argv[] = {name, nullptr};
        if (QCoreApplication::instance() == nullptr)
            new QCoreApplication(argc, argv);
    }
    void SetUp() override
    {
        qApp->installEventFilter(&counter_);
        phone_server_init(&server_);
    }
    void TearDown() override
    {
        phone_server_stop(&server_);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        qApp->removeEventFilter(&counter_);
    }
    bool wait_events(int n, int timeout_ms)
    {
        for (int i = 0; i < timeout_ms / 10; ++i) {
            QCoreApplication::processEvents();
            if (counter_.count >= n)
                return true;
            usleep(10000);
        }
        return counter_.count >= n;
    }

    PhoneServer server_;
    ClientConnectedCounter counter_;
};

// One case holds port 27555 at a time, so the busy port is part of the same test.
TEST_F(WifiServer, FirstPhoneIsTakenNewcomerTurnedAwayDeadPhoneReplaced)
{
    {
        const int squatter = listen_on(INADDR_ANY, PHONE_SERVER_PORT);
        ASSERT_NE(squatter, -1) << "port 27555 is in use elsewhere on this machine";
        StdoutCapture out;
        EXPECT_FALSE(phone_server_start_wifi(&server_));
        close(squatter);
        EXPECT_EQ(out.finish(), "Could not listen on port 27555\n");
        EXPECT_EQ(server_.accept_thread, nullptr);
    }
    phone_server_init(&server_);
    StdoutCapture out;
    ASSERT_TRUE(phone_server_start_wifi(&server_));
    EXPECT_EQ(server_.local_port, PHONE_SERVER_PORT);
    ASSERT_NE(server_.accept_thread, nullptr);

    const int first = connect_loopback(PHONE_SERVER_PORT);
    ASSERT_NE(first, -1);
    ASSERT_TRUE(wait_events(1, 3000));
    const int first_fd = fd_of(&server_.video_socket);
    EXPECT_NE(first_fd, -1);

    // While the first phone is healthy a second one is accepted and closed, without an event.
    const int second = connect_loopback(PHONE_SERVER_PORT);
    ASSERT_NE(second, -1);
    EXPECT_TRUE(peer_closed(second, 3000));
    close(second);
    EXPECT_FALSE(wait_events(2, 200));
    EXPECT_EQ(fd_of(&server_.video_socket), first_fd);

    // The first phone drops with a reset: the next one replaces it.
    linger lg{1, 0};
    setsockopt(first, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    close(first);
    usleep(100000);
    const int third = connect_loopback(PHONE_SERVER_PORT);
    ASSERT_NE(third, -1);
    ASSERT_TRUE(wait_events(2, 3000));
    const int third_fd = fd_of(&server_.video_socket);
    EXPECT_NE(third_fd, -1);
    // The daemon's end of the new connection is the video socket: bytes sent there arrive.
    ASSERT_EQ(send(third_fd, "x", 1, MSG_NOSIGNAL), 1);
    char c = 0;
    ASSERT_EQ(recv(third, &c, 1, 0), 1);
    EXPECT_EQ(c, 'x');

    phone_server_stop(&server_);
    EXPECT_EQ(server_.accept_thread, nullptr);
    EXPECT_EQ(fd_of(&server_.video_socket), -1);
    EXPECT_EQ(fd_of(&server_.server_socket), -1);
    EXPECT_TRUE(peer_closed(third, 3000));
    close(third);

    const std::string text = out.finish();
    const std::vector<std::string> lines = lines_of(text);
    const std::vector<std::string> expected = {
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
}

TEST_F(WifiServer, DatagramSocketReportsItsReceiveBuffer)
{
    StdoutCapture out;
    ASSERT_TRUE(phone_server_open_udp(&server_));
    ASSERT_NE(server_.udp_socket, -1);
    int size = 0;
    socklen_t len = sizeof size;
    ASSERT_EQ(getsockopt(server_.udp_socket, SOL_SOCKET, SO_RCVBUF, &size, &len), 0);
    PhoneServer other;
    phone_server_init(&other);
    EXPECT_FALSE(phone_server_open_udp(&other)) << "port 27556 is taken by the first socket";
    const std::string text = out.finish();
    // The value printed is the one read before the second request, which asks for the same size.
    const std::string expected = "\nget udp default recv buffer size:" + std::to_string(size) + "\n";
    EXPECT_EQ(text.compare(0, expected.size(), expected), 0) << text;
    EXPECT_NE(text.find("Could not listen udp on port 27556\n"), std::string::npos) << text;
    phone_server_stop(&server_);
    EXPECT_EQ(server_.udp_socket, -1);
}

} // namespace
