// The daemon's console: where standard output and standard error go, and what was last written
// there. Every layer prints plain lines with printf/puts/perror and the service's log lines reach
// standard error through Qt; the console keeps each thread's last plain line, so that a failed
// step can be reported with the reason its lower layer printed just before.
#pragma once

#include <string>

// Main thread, at start-up before any other thread exists. Sends both streams to `path` (appended;
// "-" keeps the inherited streams) through the console's recorder. A path that cannot be opened
// keeps the inherited streams and says so on them.
void console_open(const char* path);

// Any thread; takes no lock. How many plain lines the calling thread has written so far.
unsigned long console_line_count();
// Any thread; takes no lock. The calling thread's last non-blank plain line (service log lines
// do not count), or "" when it has written none since `since` (a console_line_count() taken
// before).
std::string console_last_line(unsigned long since);

// Bytes from a phone on their way to the console: anything outside printable ASCII becomes '?', so a
// phone can neither drive the technician's terminal nor forge a line of its own. Any thread.
char console_char(char c);
std::string console_text(const char* text);

// Any thread. While one is alive on a thread, what that thread writes is not recorded as a plain
// line (the service's own log lines).
class ConsoleServiceLine
{
public:
    ConsoleServiceLine();
    ~ConsoleServiceLine();
    ConsoleServiceLine(const ConsoleServiceLine&) = delete;
    ConsoleServiceLine& operator=(const ConsoleServiceLine&) = delete;
};
