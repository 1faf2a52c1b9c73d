#include <comm/Clock.h>
#include <kesa/ease/Runtime.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fmt/format.h>

namespace kesa {

using runtime::v02::KesaRuntime;

namespace {

sigset_t endSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

/// Blocks the end signals in this thread until it dies.
class BlockedEndSignals {
public:
    BlockedEndSignals() { pthread_sigmask(SIG_BLOCK, &m_signals, &m_before); }
    BlockedEndSignals(const BlockedEndSignals&) = delete;
    BlockedEndSignals& operator=(const BlockedEndSignals&) = delete;
    ~BlockedEndSignals()
    {
        if (m_hasCome) { // who is impatient sends it twice; let through now, the second would undo a clean end
            const timespec atOnce{};
            while (sigtimedwait(&m_signals, nullptr, &atOnce) > 0) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }

    int wait()
    {
        int signal = 0;
        sigwait(&m_signals, &signal);
        m_hasCome = true;
        return signal;
    }

    /// 0 when it is `deadline` first.
    int waitUntil(comm::TimeNs deadline)
    {
        int signal = -1;
        do {
            const comm::TimeNs left = std::max<comm::TimeNs>(deadline - comm::now(), 0);
            const timespec limit{left / comm::SECOND, left % comm::SECOND};
            signal = sigtimedwait(&m_signals, nullptr, &limit);
        } while (signal < 0 && comm::now() < deadline); // a debugger interrupts it
        m_hasCome = m_hasCome || signal > 0;
        return std::max(signal, 0);
    }

private:
    const sigset_t m_signals = endSignals();
    sigset_t m_before{};
    bool m_hasCome = false;
};

} // namespace

class Runtime::Impl {
public:
    Impl(const std::string& processName, const std::string& fallbackDocument)
    {
        if (KesaRuntime::isRunning()) {
            m_error =
                fmt::format("the runtime '{}' did not start: this process has one already; use that, or end it before",
                            processName);
        } else if (KesaRuntime::initInstance(processName, fallbackDocument)) {
            KesaRuntime::shutdown(); // an instance is there all the same
            m_error = fmt::format("the runtime '{}' did not start: its configuration names no backend, or no registry "
                                  "that one can reach; 'kesactl check-config' explains what is wrong with it",
                                  processName);
        } else {
            m_isRunning = true;
        }
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl() { end(); }

    bool isRunning() const noexcept { return m_isRunning; }
    const std::string& error() const noexcept { return m_error; }
    int runUntilSignal() { return m_isRunning ? m_signals.wait() : 0; }
    int runUntilSignal(comm::TimeNs period, const std::function<void()>& work)
    {
        int signal = 0;
        for (comm::TimeNs next = comm::now(); m_isRunning && signal == 0; signal = m_signals.waitUntil(next)) {
            work();
            const comm::TimeNs late = comm::now() - next;
            next += (late / period + 1) * period;
        }
        return signal;
    }
    void end()
    {
        if (m_isRunning) {
            KesaRuntime::shutdown();
            m_isRunning = false;
        }
    }

private:
    BlockedEndSignals m_signals; ///< first: before the runtime's threads
    bool m_isRunning = false;
    std::string m_error;
};

Runtime::Runtime(const std::string& processName, const std::string& fallbackDocument)
    : m_impl(std::make_unique<Impl>(processName, fallbackDocument))
{}

Runtime::Runtime(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}

Runtime::~Runtime() = default;

Runtime::operator bool() const noexcept
{
    return m_impl->isRunning();
}

const std::string& Runtime::error() const noexcept
{
    return m_impl->error();
}

runtime::v02::IKesaRuntime* Runtime::operator->() const
{
    return KesaRuntime::getInstance();
}

runtime::v02::IKesaRuntime& Runtime::operator*() const
{
    return *KesaRuntime::getInstance();
}

int Runtime::runUntilSignal()
{
    return m_impl->runUntilSignal();
}

int Runtime::runUntilSignal(std::chrono::nanoseconds period, const std::function<void()>& work)
{
    return m_impl->runUntilSignal(std::clamp<comm::TimeNs>(period.count(), 1, comm::NEVER / 4), work);
}

void Runtime::end()
{
    m_impl->end();
}

Runtime startOrExit(const std::string& processName, const std::string& fallbackDocument)
{
    auto impl = std::make_unique<Runtime::Impl>(processName, fallbackDocument);
    if (!impl->isRunning()) {
        fmt::print(stderr, "{}\n", impl->error());
        std::exit(1); // NOLINT(concurrency-mt-unsafe): there is one thread so far
    }
    return Runtime(std::move(impl));
}

} // namespace kesa
