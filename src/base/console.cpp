#include "base/console.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

struct Recorder {
    std::string partial; // the line being written
    std::string last;    // the last whole non-blank plain line
    unsigned long lines = 0;
    int service_depth = 0;
};

thread_local Recorder t_recorder;

void record(const char* data, size_t size)
{
    Recorder& r = t_recorder;
    if (r.service_depth > 0)
        return;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] != '\n') {
            r.partial += data[i];
            continue;
        }
        if (r.partial.find_first_not_of(" \t\r") != std::string::npos) {
            r.last.swap(r.partial);
            ++r.lines;
        }
        r.partial.clear();
    }
}

// The stream's bytes go to its descriptor unchanged; the recorder only looks.
ssize_t write_through(void* cookie, const char* data, size_t size)
{
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(cookie));
    size_t done = 0;
    while (done < size) {
        const ssize_t n = write(fd, data + done, size - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        done += size_t(n);
    }
    record(data, size);
    // A console that cannot take the text must not make the daemon retry it forever.
    return static_cast<ssize_t>(size);
}

FILE* recording_stream(int fd)
{
    cookie_io_functions_t io = {};
    io.write = write_through;
    return fopencookie(reinterpret_cast<void*>(static_cast<intptr_t>(fd)), "w", io);
}

} // namespace

void console_open(const char* path)
{
    fflush(stdout);
    fflush(stderr);
    int open_error = 0;
    if (strcmp(path, "-") != 0) {
        const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_NOCTTY | O_CLOEXEC, 0644);
        if (fd >= 0) {
            // Both streams share one open file, so lines land in the order written; children
            // (adb, shell commands) write there too.
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            close(fd);
        } else {
            open_error = errno;
        }
    }
    FILE* out = recording_stream(STDOUT_FILENO);
    FILE* err = recording_stream(STDERR_FILENO);
    if (out != nullptr && err != nullptr) {
        stdout = out;
        stderr = err;
        setvbuf(stderr, nullptr, _IONBF, 0);
    }
    // A plain line and a log line written after it must reach the console in that order.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (open_error != 0)
        printf("console %s cannot be opened (%s): writing to the inherited streams\n", path,
               strerror(open_error));
}

unsigned long console_line_count()
{
    return t_recorder.lines;
}

std::string console_last_line(unsigned long since)
{
    return t_recorder.lines > since ? t_recorder.last : std::string();
}

ConsoleServiceLine::ConsoleServiceLine()
{
    ++t_recorder.service_depth;
}

ConsoleServiceLine::~ConsoleServiceLine()
{
    --t_recorder.service_depth;
}

char console_char(char c)
{
    return c >= 0x20 && c <= 0x7e ? c : '?';
}

std::string console_text(const char* text)
{
    std::string out(text);
    for (char& c : out)
        c = console_char(c);
    return out;
}
