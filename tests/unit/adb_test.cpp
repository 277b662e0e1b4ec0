// adb command lines, observed through a stand-in tool that records the argv it was started with.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "command.h"
#include "server/adb.h"

namespace {

using Args = std::vector<std::string>;

// The argv the stand-in recorded for the finished child, its own path first.
Args recorded(pid_t pid, const std::string& file)
{
    Args argv;
    EXPECT_TRUE(command_check_exit(pid, "adb"));
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);)
        argv.push_back(line);
    std::remove(file.c_str());
    return argv;
}

} // namespace

TEST(AdbCommandLine, ToolReadOnceSelectorFirstTunnelEndsInTheirDirection)
{
    char tmpl[] = "/tmp/orvane-adb-XXXXXX";
    const std::string dir = mkdtemp(tmpl), tool = dir + "/adb-recorder", log = dir + "/argv";
    std::ofstream(tool) << "#!/bin/sh\nprintf '%s\\n' \"$0\" \"$@\" > '" << log << "'\n";
    chmod(tool.c_str(), 0755);
    setenv("ADB", tool.c_str(), 1);
    ASSERT_EQ(adb_tool_path(), tool);
    // Later changes to ADB are not seen.
    setenv("ADB", "/nonexistent/other-adb", 1);
    EXPECT_EQ(adb_tool_path(), tool);

    const std::string long_name(200, 'n');
    const char* shell[] = {"shell", "settings", "put", "system", "show_touches", "1"};
    const std::vector<std::pair<std::function<pid_t()>, Args>> cases = {
        {[] { return adb_push_file(nullptr, "l", "r"); }, {"push", "l", "r"}},
        {[] { return adb_push_file("0123456789ABCDEF", "/q/a.jar", "/data/local/tmp/a.jar"); },
         {"-s", "0123456789ABCDEF", "push", "/q/a.jar", "/data/local/tmp/a.jar"}},
        {[&] { return adb_run("emulator-5554", shell, 6); },
         {"-s", "emulator-5554", "shell", "settings", "put", "system", "show_touches", "1"}},
        {[] { return adb_tunnel_reverse(nullptr, "androidlink", 27555); },
         {"reverse", "localabstract:androidlink", "tcp:27555"}},
        {[] { return adb_tunnel_forward(nullptr, 27555, "androidlink"); },
         {"forward", "tcp:27555", "localabstract:androidlink"}},
        {[] { return adb_tunnel_reverse_remove("S1", "androidlink"); },
         {"-s", "S1", "reverse", "--remove", "localabstract:androidlink"}},
        {[] { return adb_tunnel_forward_remove("S1", 65535); },
         {"-s", "S1", "forward", "--remove", "tcp:65535"}},
        {[] { return adb_install_package(nullptr, "app.apk"); }, {"install", "-r", "app.apk"}},
        // The socket argument is cut to 122 characters.
        {[&] { return adb_tunnel_reverse(nullptr, long_name.c_str(), 1); },
         {"reverse", "localabstract:" + std::string(122 - 14, 'n'), "tcp:1"}},
    };
    for (const auto& c : cases) {
        Args expected = c.second;
        expected.insert(expected.begin(), tool);
        EXPECT_EQ(recorded(c.first(), log), expected);
    }
    std::system(("rm -rf '" + dir + "'").c_str());
}
