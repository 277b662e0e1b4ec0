// fake-adb: an adb stand-in for running the daemon without a phone.
//
//   fake-adb [-s SERIAL] push LOCAL REMOTE
//   fake-adb [-s SERIAL] reverse localabstract:NAME tcp:PORT | reverse --remove localabstract:NAME
//   fake-adb [-s SERIAL] forward tcp:PORT localabstract:NAME | forward --remove tcp:PORT
//   fake-adb [-s SERIAL] shell CLASSPATH=... app_process / CLASS ARGS...   (runs phone-sim CLASS ARGS...)
//   fake-adb [-s SERIAL] shell OTHER...                                     (recorded, succeeds)
//   fake-adb devices | kill-server | [-s SERIAL] install [-r] PATH
//
// Environment:
//   FAKE_ADB_LOG        append one line per call: the whole argument list, space separated
//   FAKE_ADB_STATE      tunnel state file prefix (default FAKE_ADB_LOG.state, else /tmp/fake-adb-<uid>);
//                       one file per serial holds "reverse PORT" or "forward PORT"
//   FAKE_ADB_FAIL       comma list of steps that fail like adb ("error: ..." on stderr, exit 1):
//                       push, reverse, reverse-remove, forward, forward-remove, shell (any shell),
//                       launch (only the app_process shell), install, devices, kill-server
//   FAKE_ADB_NO_DEVICE  1: nothing attached ("adb: no devices/emulators found", exit 1; devices lists none)
//   FAKE_ADB_SERIAL     serial of the attached device (default ORVANE0001); -s with another one fails
//   FAKE_ADB_PHONE_SIM  simulator path (default: phone-sim beside this program)
//   FAKE_ADB_UNLINK_AFTER STEP:PATH  after STEP succeeded, delete PATH (lets a test make the next
//                       call of the tool fail to start)
// The launched simulator gets PHONE_SIM_PORT set to the tunnel's port. SIGTERM while it runs is
// passed on to it, and fake-adb exits with its status.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <limits.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t g_child = -1;
volatile sig_atomic_t g_term = 0;

void on_term(int)
{
    g_term = 1;
    if (g_child > 0)
        kill(g_child, SIGTERM);
}

std::string env_or(const char* name, const std::string& fallback)
{
    const char* v = getenv(name);
    return v != nullptr && *v != '\0' ? std::string(v) : fallback;
}

bool listed(const char* env, const std::string& step)
{
    const char* v = getenv(env);
    if (v == nullptr)
        return false;
    std::string list = std::string(",") + v + ",";
    return list.find("," + step + ",") != std::string::npos;
}

void log_call(int argc, char** argv)
{
    const char* path = getenv("FAKE_ADB_LOG");
    if (path == nullptr || *path == '\0')
        return;
    std::string line;
    for (int i = 1; i < argc; ++i) {
        if (i > 1)
            line += ' ';
        line += argv[i];
    }
    line += '\n';
    // One write on an O_APPEND descriptor keeps lines whole when several calls overlap.
    int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    ssize_t w = write(fd, line.data(), line.size());
    (void)w;
    close(fd);
}

std::string state_path(const std::string& serial)
{
    std::string base = env_or("FAKE_ADB_STATE", "");
    if (base.empty()) {
        const char* log = getenv("FAKE_ADB_LOG");
        base = log != nullptr && *log != '\0' ? std::string(log) + ".state"
                                              : "/tmp/fake-adb-" + std::to_string(getuid());
    }
    return base + "." + serial;
}

void state_write(const std::string& serial, const std::string& content)
{
    FILE* f = fopen(state_path(serial).c_str(), "w");
    if (f == nullptr)
        return;
    fputs(content.c_str(), f);
    fclose(f);
}

bool state_read(const std::string& serial, std::string* kind, int* port)
{
    FILE* f = fopen(state_path(serial).c_str(), "r");
    if (f == nullptr)
        return false;
    char k[16] = {0};
    int p = 0;
    bool ok = fscanf(f, "%15s %d", k, &p) == 2;
    fclose(f);
    if (ok) {
        *kind = k;
        *port = p;
    }
    return ok;
}

int fail(const std::string& what)
{
    fprintf(stderr, "error: %s\n", what.c_str());
    return 1;
}

int usage()
{
    fputs("usage: fake-adb [-s SERIAL] push|reverse|forward|shell|install ARGS... | devices | kill-server\n",
          stderr);
    return 1;
}

bool parse_port(const std::string& spec, int* port)
{
    if (spec.compare(0, 4, "tcp:") != 0)
        return false;
    char* end = nullptr;
    long v = strtol(spec.c_str() + 4, &end, 10);
    if (end == spec.c_str() + 4 || *end != '\0' || v < 1 || v > 65535)
        return false;
    *port = static_cast<int>(v);
    return true;
}

std::string sim_path()
{
    std::string p = env_or("FAKE_ADB_PHONE_SIM", "");
    if (!p.empty())
        return p;
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0)
        return "phone-sim";
    self[n] = '\0';
    std::string dir(self);
    return dir.substr(0, dir.rfind('/') + 1) + "phone-sim";
}

int run_simulator(const std::string& serial, const std::vector<std::string>& args)
{
    std::string kind;
    int port = 0;
    if (state_read(serial, &kind, &port))
        setenv("PHONE_SIM_PORT", std::to_string(port).c_str(), 1);

    struct sigaction sa = {};
    sa.sa_handler = on_term;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);

    const std::string sim = sim_path();
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(sim.c_str()));
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    // Block SIGTERM across the fork so a signal arriving in between is not lost: it is either
    // handled before g_child is known (then passed on right after) or after.
    sigset_t block, old;
    sigemptyset(&block);
    sigaddset(&block, SIGTERM);
    sigprocmask(SIG_BLOCK, &block, &old);
    pid_t pid = fork();
    if (pid < 0) {
        sigprocmask(SIG_SETMASK, &old, nullptr);
        perror("fork");
        return 1;
    }
    if (pid == 0) {
        signal(SIGTERM, SIG_DFL);
        signal(SIGINT, SIG_DFL);
        sigprocmask(SIG_SETMASK, &old, nullptr);
        execv(argv[0], argv.data());
        fprintf(stderr, "/system/bin/sh: %s: inaccessible or not found\n", argv[0]);
        _exit(127);
    }
    g_child = pid;
    sigprocmask(SIG_SETMASK, &old, nullptr);
    if (g_term)
        kill(pid, SIGTERM);

    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return 1;
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    return 128 + WTERMSIG(status);
}

} // namespace

int main(int argc, char** argv)
{
    log_call(argc, argv);

    std::vector<std::string> a(argv + 1, argv + argc);
    std::string serial;
    if (a.size() >= 2 && a[0] == "-s") {
        serial = a[1];
        a.erase(a.begin(), a.begin() + 2);
    }
    if (a.empty())
        return usage();

    const std::string cmd = a[0];
    const bool no_device = env_or("FAKE_ADB_NO_DEVICE", "0") == "1";
    const std::string attached = env_or("FAKE_ADB_SERIAL", "ORVANE0001");

    if (cmd == "kill-server")
        return listed("FAKE_ADB_FAIL", "kill-server") ? fail("cannot kill server") : 0;
    if (cmd == "devices") {
        if (listed("FAKE_ADB_FAIL", "devices"))
            return fail("cannot connect to daemon");
        printf("List of devices attached\n");
        if (!no_device)
            printf("%s\tdevice\n", attached.c_str());
        printf("\n");
        return 0;
    }

    if (no_device) {
        fputs("adb: no devices/emulators found\n", stderr);
        return 1;
    }
    if (!serial.empty() && serial != attached) {
        fprintf(stderr, "adb: device '%s' not found\n", serial.c_str());
        return 1;
    }
    const std::string key = serial.empty() ? attached : serial;

    std::string step;
    int rc = 0;
    if (cmd == "push") {
        if (a.size() != 3)
            return usage();
        step = "push";
        if (listed("FAKE_ADB_FAIL", step))
            return fail("failed to copy '" + a[1] + "' to '" + a[2] + "': remote Read-only file system");
        // The archive need not exist here: the simulator stands in for what it would run.
        printf("%s: 1 file pushed, 0 skipped.\n", a[1].c_str());
    } else if (cmd == "reverse" || cmd == "forward") {
        const bool remove = a.size() == 3 && a[1] == "--remove";
        step = cmd + (remove ? "-remove" : "");
        int port = 0;
        if (remove) {
            if (cmd == "forward" && !parse_port(a[2], &port))
                return usage();
        } else if (a.size() != 3 || !parse_port(cmd == "reverse" ? a[2] : a[1], &port)) {
            return usage();
        }
        if (listed("FAKE_ADB_FAIL", step))
            return fail(remove ? "listener '" + a[2] + "' not found" : "cannot bind listener: refused");
        if (remove) {
            unlink(state_path(key).c_str());
        } else {
            state_write(key, cmd + " " + std::to_string(port) + "\n");
            if (cmd == "forward")
                printf("%d\n", port);
        }
    } else if (cmd == "shell") {
        step = "shell";
        size_t i = 1;
        if (i < a.size() && a[i].compare(0, 10, "CLASSPATH=") == 0)
            ++i;
        const bool launch = i + 2 < a.size() && a[i] == "app_process" && a[i + 1] == "/";
        if (listed("FAKE_ADB_FAIL", "shell") || (launch && listed("FAKE_ADB_FAIL", "launch")))
            return fail("closed");
        if (launch)
            return run_simulator(key, std::vector<std::string>(a.begin() + i + 2, a.end()));
    } else if (cmd == "install") {
        step = "install";
        if (a.size() < 2 || a.size() > 3 || (a.size() == 3 && a[1] != "-r"))
            return usage();
        if (listed("FAKE_ADB_FAIL", step))
            return fail("Failure [INSTALL_FAILED_INVALID_APK]");
        printf("Success\n");
    } else {
        return usage();
    }

    const std::string unlink_after = env_or("FAKE_ADB_UNLINK_AFTER", "");
    const size_t colon = unlink_after.find(':');
    if (colon != std::string::npos && unlink_after.substr(0, colon) == step)
        unlink(unlink_after.substr(colon + 1).c_str());
    return rc;
}
