// adb command lines: which tool runs, where the device selector goes, and the argument order of
// each sub-command, observed through a stand-in tool that records the argv it was started with.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "command.h"
#include "server/adb.h"

namespace {

// Scenarios that need a process whose tool path is not resolved yet run in a fresh copy of this
// executable, before main: ORVANE_ADB_TEST_SCENARIO selects one and its stdout is the result.
struct FreshProcessScenario {
    FreshProcessScenario()
    {
        const char* scenario = getenv("ORVANE_ADB_TEST_SCENARIO");
        if (scenario == nullptr)
            return;
        setvbuf(stdout, nullptr, _IONBF, 0);
        pid_t pid = -1;
        if (strcmp(scenario, "default-tool") == 0)
            pid = adb_push_file(nullptr, "a.jar", "/data/local/tmp/a.jar");
        else if (strcmp(scenario, "missing-tool-with-serial") == 0)
            pid = adb_tunnel_reverse("R58M", "androidlink", 27555);
        printf("pid=%d tool=%s\n", static_cast<int>(pid), adb_tool_path());
        _exit(0);
    }
} fresh_process_scenario;

std::string run_scenario(const char* scenario, const std::vector<std::string>& env)
{
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        close(fds[0]);
        close(fds[1]);
        unsetenv("ADB");
        setenv("ORVANE_ADB_TEST_SCENARIO", scenario, 1);
        for (const std::string& kv : env)
            putenv(strdup(kv.c_str()));
        execl("/proc/self/exe", "adb_test", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    std::string out;
    char buf[1024];
    ssize_t r;
    while ((r = read(fds[0], buf, sizeof buf)) > 0)
        out.append(buf, static_cast<size_t>(r));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    return out;
}

class AdbCommandLine : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        char tmpl[] = "/tmp/orvane-adb-XXXXXX";
        dir_ = mkdtemp(tmpl);
        tool_ = dir_ + "/adb-recorder";
        std::ofstream script(tool_);
        // One argument per line, the tool's own path first.
        script << "#!/bin/sh\n"
               << "{ printf '%s\\n' \"$0\"; for a in \"$@\"; do printf '%s\\n' \"$a\"; done; } > '" << dir_
               << "/argv'\n";
        script.close();
        chmod(tool_.c_str(), 0755);
        setenv("ADB", tool_.c_str(), 1);
        ASSERT_STREQ(adb_tool_path(), tool_.c_str());
    }

    static void TearDownTestSuite() { std::system(("rm -rf '" + dir_ + "'").c_str()); }

    // The argv the stand-in recorded for the child, after the tool path.
    static std::vector<std::string> recorded(pid_t pid)
    {
        std::vector<std::string> argv;
        EXPECT_GT(pid, 0);
        if (pid <= 0)
            return argv;
        EXPECT_TRUE(command_check_exit(pid, "adb"));
        std::ifstream in(dir_ + "/argv");
        std::string line;
        while (std::getline(in, line))
            argv.push_back(line);
        std::remove((dir_ + "/argv").c_str());
        EXPECT_FALSE(argv.empty());
        if (!argv.empty()) {
            EXPECT_EQ(argv.front(), tool_);
            argv.erase(argv.begin());
        }
        return argv;
    }

    using Args = std::vector<std::string>;
    static std::string dir_;
    static std::string tool_;
};

std::string AdbCommandLine::dir_;
std::string AdbCommandLine::tool_;

TEST_F(AdbCommandLine, ToolPathIsReadOnce)
{
    setenv("ADB", "/nonexistent/other-adb", 1);
    EXPECT_STREQ(adb_tool_path(), tool_.c_str());
    EXPECT_EQ(recorded(adb_push_file(nullptr, "l", "r")), (Args{"push", "l", "r"}));
    unsetenv("ADB");
    EXPECT_EQ(recorded(adb_push_file(nullptr, "l", "r")), (Args{"push", "l", "r"}));
    setenv("ADB", tool_.c_str(), 1);
}

TEST_F(AdbCommandLine, SerialSelectorFollowsTheTool)
{
    EXPECT_EQ(recorded(adb_push_file("0123456789ABCDEF", "/qvoprofile/qvoalink-server.jar",
                                     "/data/local/tmp/qvoalink-server.jar")),
              (Args{"-s", "0123456789ABCDEF", "push", "/qvoprofile/qvoalink-server.jar",
                    "/data/local/tmp/qvoalink-server.jar"}));
    EXPECT_EQ(recorded(adb_push_file(nullptr, "a", "b")), (Args{"push", "a", "b"}));

    const char* shell[] = {"shell", "settings", "put", "system", "show_touches", "1"};
    EXPECT_EQ(recorded(adb_run("emulator-5554", shell, 6)),
              (Args{"-s", "emulator-5554", "shell", "settings", "put", "system", "show_touches", "1"}));
    EXPECT_EQ(recorded(adb_run(nullptr, shell, 0)), Args{});
}

TEST_F(AdbCommandLine, TunnelsListTheirEndsInTheDirectionOfTheTunnel)
{
    EXPECT_EQ(recorded(adb_tunnel_reverse(nullptr, "androidlink", 27555)),
              (Args{"reverse", "localabstract:androidlink", "tcp:27555"}));
    EXPECT_EQ(recorded(adb_tunnel_forward(nullptr, 27555, "androidlink")),
              (Args{"forward", "tcp:27555", "localabstract:androidlink"}));
    EXPECT_EQ(recorded(adb_tunnel_reverse_remove("S1", "androidlink")),
              (Args{"-s", "S1", "reverse", "--remove", "localabstract:androidlink"}));
    EXPECT_EQ(recorded(adb_tunnel_forward_remove("S1", 65535)),
              (Args{"-s", "S1", "forward", "--remove", "tcp:65535"}));
    EXPECT_EQ(recorded(adb_tunnel_forward(nullptr, 0, "")), (Args{"forward", "tcp:0", "localabstract:"}));
    EXPECT_EQ(recorded(adb_install_package(nullptr, "app.apk")), (Args{"install", "-r", "app.apk"}));

    // The socket argument is cut to 122 characters.
    const std::string name(200, 'n');
    const Args reverse = recorded(adb_tunnel_reverse(nullptr, name.c_str(), 1));
    ASSERT_EQ(reverse.size(), 3u);
    EXPECT_EQ(reverse[1], "localabstract:" + std::string(122 - 14, 'n'));
}

TEST(AdbToolLookup, WithoutAdbTheBareNameGoesThroughThePath)
{
    char tmpl[] = "/tmp/orvane-adb-path-XXXXXX";
    const std::string empty_dir = mkdtemp(tmpl);
    const std::string out = run_scenario("default-tool", {"PATH=" + empty_dir});
    rmdir(empty_dir.c_str());
    EXPECT_EQ(out, "Command not found: [adb], [push], [a.jar], [/data/local/tmp/a.jar]\n"
                   "(make 'adb' accessible from your PATH or define its fullpath in the ADB environment "
                   "variable)\n"
                   "pid=-1 tool=adb\n");
}

TEST(AdbToolLookup, FailureReportShowsToolAndSelector)
{
    const std::string out = run_scenario("missing-tool-with-serial", {"ADB=/nonexistent/sdk/adb"});
    EXPECT_EQ(out, "Command not found: [/nonexistent/sdk/adb], [-s], [R58M], [reverse], "
                   "[localabstract:androidlink], [tcp:27555]\n"
                   "(make 'adb' accessible from your PATH or define its fullpath in the ADB environment "
                   "variable)\n"
                   "pid=-1 tool=/nonexistent/sdk/adb\n");
}

} // namespace
