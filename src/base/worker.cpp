#include "base/worker.h"

#include <QAbstractEventDispatcher>
#include <cstdio>
#include <pthread.h>

namespace {

// Nothing to dispatch: a worker's run() loops on its own sockets and never calls exec().
class WorkerDispatcher : public QAbstractEventDispatcher
{
public:
    bool processEvents(QEventLoop::ProcessEventsFlags) override { return false; }
    void registerSocketNotifier(QSocketNotifier*) override {}
    void unregisterSocketNotifier(QSocketNotifier*) override {}
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    void registerTimer(int, qint64, Qt::TimerType, QObject*) override {}
#else
    void registerTimer(int, int, Qt::TimerType, QObject*) override {}
    bool hasPendingEvents() override
    {
        return false;
    }
    void flush() override {}
#endif
    bool unregisterTimer(int) override
    {
        return false;
    }
    bool unregisterTimers(QObject*) override
    {
        return false;
    }
    QList<TimerInfo> registeredTimers(QObject*) const override
    {
        return {};
    }
    int remainingTime(int) override
    {
        return -1;
    }
    void wakeUp() override {}
    void interrupt() override {}
};

} // namespace

WorkerSignalMask::WorkerSignalMask()
{
    sigset_t blocked;
    sigfillset(&blocked);
    for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT})
        sigdelset(&blocked, fault);
    pthread_sigmask(SIG_BLOCK, &blocked, &saved_);
}

WorkerSignalMask::~WorkerSignalMask()
{
    pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
}

bool worker_start(QThread* thread, QThread::Priority priority, const char* name)
{
    thread->setObjectName(name);
    thread->setEventDispatcher(new WorkerDispatcher);
    {
        WorkerSignalMask mask;
        thread->start(priority);
    }
    // A thread that ran and already returned counts as started.
    if (thread->isRunning() || thread->isFinished())
        return true;
    printf("Could not start the %s thread\n", name);
    return false;
}
