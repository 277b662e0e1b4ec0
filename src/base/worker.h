// Starting the daemon's worker threads. A worker never takes the process's signals: an end signal
// or the call-stack signal aimed at the process goes to the main thread, and one aimed at a worker
// stays pending instead of cutting short a receive in the middle of a frame. Workers run no event
// loop, so a QThread worker gets an event dispatcher that needs no file descriptor (the default one
// aborts the whole daemon when the process has none left).
#pragma once

#include <QThread>
#include <signal.h>

// Main thread. While one is alive, the calling thread blocks every signal but the faults (SIGSEGV,
// SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT); threads created meanwhile keep that mask.
class WorkerSignalMask
{
public:
    WorkerSignalMask();
    ~WorkerSignalMask();
    WorkerSignalMask(const WorkerSignalMask&) = delete;
    WorkerSignalMask& operator=(const WorkerSignalMask&) = delete;

private:
    sigset_t saved_;
};

// Main thread. Starts `thread` named `name` (its thread name, seen in /proc and by debuggers) with
// the worker's signal mask and dispatcher. False, after a line naming the thread, when the system
// refuses a new thread (a process limit, no memory for its stack).
bool worker_start(QThread* thread, QThread::Priority priority, const char* name);
