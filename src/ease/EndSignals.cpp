// Who is to end is told once. A second signal comes of somebody who is impatient, and must help against whatever hangs,
// so no loop that runs handlers may be what lets it through: the thread here has nothing else to do, and lets signals
// be delivered to itself after the first. One that follows at once is the first again: who sends to a process and to
// its group, as timeout(1) does, means to say it once.
#include "EndSignals.h"

#include "Interruption.h"

#include <comm/Clock.h>
#include <comm/Scheduler.h>
#include <obr/GlobalErrorHandler.h>
#include <obr/explainError.h>
#include <tracing/Channel.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>

namespace kesa::detail {

namespace {

constexpr int END_SIGNALS[] = {SIGINT, SIGTERM};
constexpr comm::TimeNs SAME_SIGNAL = 100 * comm::MILLISECOND;
constexpr comm::TimeNs LONGEST_START = 500 * comm::MILLISECOND; ///< of all threads that are being started

sigset_t noSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    return signals;
}

sigset_t allEndSignals()
{
    sigset_t signals = noSignals();
    for (const int signal : END_SIGNALS) {
        sigaddset(&signals, signal);
    }
    return signals;
}

const char* nameOf(int signal)
{
    return signal == SIGINT ? "SIGINT" : "SIGTERM";
}

/// One that is pending, 0: none.
int takePending(const sigset_t& signals)
{
    const timespec atOnce{};
    const int signal = sigtimedwait(&signals, nullptr, &atOnce);
    return signal > 0 ? signal : 0;
}

/// A thread as its "status" shows it.
struct ThreadStatus {
    std::string name;
    std::uint64_t blocked = 0;
    bool isThere = false;
    bool sleeps = false;

    bool blocks(int signal) const { return (blocked >> (signal - 1) & 1) != 0; }
    /// While a thread starts, ends or starts another it blocks all, also what only the C library can block. One that
    /// sleeps does none of these, and blocks all for good.
    bool isChanging() const
    {
        constexpr int LIBRARYS_OWN = 33;
        return isThere && !sleeps && blocks(LIBRARYS_OWN);
    }
};

ThreadStatus readStatus(const std::filesystem::path& thread)
{
    ThreadStatus result;
    std::ifstream status(thread / "status");
    std::string mask;
    for (std::string key; status >> key && key != "SigBlk:";) {
        const bool isState = key == "State:";
        std::getline(status >> std::ws, key == "Name:" ? result.name : key);
        result.sleeps = result.sleeps || (isState && key.starts_with('S')); // "S (sleeping)"
    }
    if (status >> mask) {
        result.blocked = std::strtoull(mask.c_str(), nullptr, 16);
        result.isThere = true;
    }
    return result;
}

/// What it blocks for good: looked at again until it has started or is gone. One that has not by the deadline is of
/// those that block everything as long as they live, such as one of the kernel's.
ThreadStatus settledStatus(const std::filesystem::path& thread, comm::TimeNs deadline)
{
    ThreadStatus result = readStatus(thread);
    while (result.isChanging() && comm::now() < deadline) {
        ::sched_yield();
        result = readStatus(thread);
    }
    return result;
}

/// Threads that are there already take the signals instead of us. Without /proc nobody knows.
void warnOfThreadsThatTake(const sigset_t& signals)
{
    std::string all;
    std::error_code unreadable;
    const comm::TimeNs deadline = comm::now() + LONGEST_START;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task", unreadable)) {
        const ThreadStatus status = settledStatus(thread.path(), deadline);
        const auto takes = [&](int signal) { return sigismember(&signals, signal) == 1 && !status.blocks(signal); };
        if (status.isThere && (takes(SIGINT) || takes(SIGTERM))) {
            all += fmt::format("{}'{}' ({})", all.empty() ? "" : ", ", status.name, thread.path().filename().native());
        }
    }
    if (!all.empty()) {
        static const ::tracing::Channel channel("KESA_EASE");
        KESA_TRACE(channel, 3,
                   "[Runtime] threads that were there before this kesa::Runtime do not block SIGINT and SIGTERM: %s; a "
                   "signal that one of them takes ends the process at once; make the kesa::Runtime first in main",
                   all.c_str());
    }
}

/// By whoever started the program, who may end others by the same Ctrl-C, or by itself. One that is blocked comes all
/// the same.
bool isIgnored(int signal)
{
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler == SIG_IGN; // NOLINT: a macro of the system's
}

bool hasHandler(int signal)
{
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN; // NOLINT: macros of the system's
}

/// To a handler that was installed after the signal was blocked, which runs here when this unblocks. The other threads
/// of ours still block it, so that it is the handler's from now on.
void handOver(int signal)
{
    sigset_t own = noSignals();
    sigaddset(&own, signal);
    ::raise(signal);
    pthread_sigmask(SIG_UNBLOCK, &own, nullptr);
}

void sayIgnored(int signal)
{
    static const ::tracing::Channel channel("KESA_EASE");
    KESA_TRACE(channel, 3,
               "[Runtime] %s has come and is ignored, since this program was started so, as a script's '&' does it, "
               "or ignores it itself; %s",
               nameOf(signal), signal == SIGINT ? "SIGTERM ends this process" : "kill -9 ends this process");
}

} // namespace

EndSignals::EndSignals() : m_taken(noSignals())
{
    pthread_sigmask(SIG_SETMASK, nullptr, &m_before);
    bool takesAny = false;
    for (const int signal : END_SIGNALS) {
        if (sigismember(&m_before, signal) == 0 && !hasHandler(signal)) {
            sigaddset(&m_taken, signal);
            takesAny = true;
        }
    }
    if (takesAny) {
        pthread_sigmask(SIG_BLOCK, &m_taken, nullptr);
        warnOfThreadsThatTake(m_taken);
        startTaking();
    }
}

EndSignals::~EndSignals()
{
    if (m_loop) {
        m_loop->stop();
        ::close(m_descriptor);
    }
    if (m_signal != 0) { // the same, let through now, would undo a clean end
        Interruption::end();
        while (takePending(allEndSignals()) != 0) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}

int EndSignals::wait(comm::TimeNs deadline)
{
    takeAll();
    // What this thread has raised itself, or another sent to it alone, no other thread can take.
    if (const int own = takePending(allEndSignals()); own != 0) {
        come(own);
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    if (comm::waitFor(
            m_changed, lock, [this] { return m_signal != 0; }, deadline)) {
        Interruption::end();
    }
    return m_signal;
}

/// Also those that the program handles itself: it waits for one.
void EndSignals::takeAll()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_takesAll || m_signal != 0) {
        return;
    }
    m_takesAll = true;
    m_taken = allEndSignals();
    pthread_sigmask(SIG_BLOCK, &m_taken, nullptr);
    if (!m_loop) {
        startTaking();
    } else {
        m_loop->post([this, signals = m_taken] {
            ::signalfd(m_descriptor, &signals, 0);
            pthread_sigmask(SIG_BLOCK, &signals, nullptr); // handed over, maybe
        });
    }
}

void EndSignals::startTaking()
{
    m_descriptor = ::signalfd(-1, &m_taken, SFD_CLOEXEC | SFD_NONBLOCK);
    if (m_descriptor < 0) {
        const std::string message = "cannot wait for SIGINT and SIGTERM: " + obr::explainError(errno);
        obr::GlobalErrorHandler::doAbort(__FILE__, __LINE__, __func__, message.c_str());
    }
    m_loop = comm::Scheduler::current().makeReactor("kesa-signals");
    m_loop->post([this, loop = m_loop.get()] {
        m_watch = loop->watch(m_descriptor, comm::Reactor::eREADABLE, [this](unsigned) { take(); });
    });
}

void EndSignals::take()
{
    signalfd_siginfo info{};
    while (::read(m_descriptor, &info, sizeof info) == sizeof info) {
        come(static_cast<int>(info.ssi_signo));
    }
}

void EndSignals::come(int signal)
{
    if (isIgnored(signal)) {
        if (!m_hasSaidIgnored.exchange(true)) {
            sayIgnored(signal);
        }
        return;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_signal != 0) {
        return;
    }
    if (!m_takesAll && hasHandler(signal)) {
        sigdelset(&m_taken, signal);
        ::signalfd(m_descriptor, &m_taken, 0);
        lock.unlock();
        handOver(signal);
        return;
    }
    m_signal = signal;
    Interruption::begin(signal);
    m_changed.notifyAll();
    lock.unlock();
    m_loop->post([this] { m_loop->startTimer(comm::now() + SAME_SIGNAL, [this] { letThrough(); }); });
}

void EndSignals::letThrough()
{
    take(); // dropped
    m_loop->unwatch(m_watch);
    const sigset_t signals = allEndSignals();
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

} // namespace kesa::detail
