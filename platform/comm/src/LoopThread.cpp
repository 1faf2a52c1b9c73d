#include "LoopThread.h"

#include "CurrentLoop.h"
#include "LiveLoop.h"

#include <comm/OwnDescriptors.h>
#include <obr/GlobalErrorHandler.h>

#include <csignal>
#include <ctime>
#include <memory>
#include <system_error>
#include <utility>

namespace comm {

namespace {

thread_local const LoopThread* currentThread = nullptr;

struct Start {
    Start(const LoopThread& loopThread, std::function<void()>&& loopBody)
        : thread(&loopThread), body(std::move(loopBody))
    {}
    const LoopThread* thread;
    std::function<void()> body;
    LiveLoop live;
};

void* run(void* argument)
{
    const std::unique_ptr<Start> start(static_cast<Start*>(argument));
    currentThread = start->thread;
    ::pthread_setname_np(::pthread_self(), threadName(start->thread->loopName()).c_str());
    {
        const CurrentLoop current(&start->thread->info());
        start->body();
    }
    currentThread = nullptr;
    return nullptr;
}

/// All but those a thread raises itself by a fault: blocked, they would end the process before its crash handler ran.
sigset_t signalsToBlock()
{
    sigset_t signals;
    ::sigfillset(&signals);
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
        ::sigdelset(&signals, signal);
    }
    return signals;
}

} // namespace

std::string threadName(const std::string& loopName)
{
    std::string last = loopName.substr(loopName.rfind('.') + 1);
    if (last.starts_with("m_")) {
        last.erase(0, 2);
    }
    if (!last.starts_with("kesa-")) {
        last.insert(0, "kesa-");
    }
    return last.substr(0, 15);
}

LoopThread::LoopThread(const std::string& loopName, Reactor* reactor)
    : m_loopName(loopName), m_info{m_loopName, reactor}, m_generation(OwnDescriptors::generation())
{}

void LoopThread::start(std::function<void()> body)
{
    auto start = std::make_unique<Start>(*this, std::move(body));
    const sigset_t blocked = signalsToBlock();
    sigset_t before;
    ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const int error = ::pthread_create(&m_thread, nullptr, run, start.get());
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) {
        const std::string message =
            "cannot start the thread of the loop '" + m_loopName + "': " + std::system_category().message(error);
        obr::GlobalErrorHandler::doAbort(__FILE__, __LINE__, __func__, message.c_str());
    }
    static_cast<void>(start.release()); // the thread's own now
}

bool LoopThread::isCurrent() const noexcept
{
    return currentThread == this && isHere();
}

void LoopThread::join()
{
    const std::lock_guard lock(m_joinMutex);
    if (!std::exchange(m_isJoined, true)) {
        ::pthread_join(m_thread, nullptr);
    }
}

void LoopThread::join(const std::function<void()>& tell)
{
    const std::lock_guard lock(m_joinMutex);
    if (m_isJoined) {
        return;
    }
    m_isJoined = true;
    timespec late{};
    ::clock_gettime(CLOCK_REALTIME, &late);
    ++late.tv_sec;
    if (::pthread_timedjoin_np(m_thread, nullptr, &late) != 0) {
        tell();
        ::pthread_join(m_thread, nullptr);
    }
}

void LoopThread::detach()
{
    const std::lock_guard lock(m_joinMutex);
    if (!std::exchange(m_isJoined, true)) {
        ::pthread_detach(m_thread);
    }
}

bool LoopThread::isHere() const noexcept
{
    return m_generation == OwnDescriptors::generation();
}

bool LoopThread::isUsable(const char* function) const
{
    if (isHere()) {
        return true;
    }
    const std::string message = "the loop '" + m_loopName +
                                "' belongs to the parent process: after fork, a child may " +
                                "use nothing of Kesa that was made before; call exec, or fork before the first use";
    obr::GlobalErrorHandler::doAssert(false, "isHere()", __FILE__, __LINE__, function, message.c_str());
    return false;
}

bool LoopThread::mayStop(const char* function) const
{
    if (!isUsable(function)) {
        return false;
    }
    if (!isCurrent()) {
        return true;
    }
    const std::string message = "the loop '" + m_loopName +
                                "' cannot be stopped from inside itself: it would wait for " +
                                "its own end; stop it from another thread";
    obr::GlobalErrorHandler::doAssert(false, "!isCurrent()", __FILE__, __LINE__, function, message.c_str());
    return false;
}

} // namespace comm
