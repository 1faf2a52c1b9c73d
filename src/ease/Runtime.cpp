#include <kesa/ease/Runtime.h>

#include <csignal>
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
            m_error = fmt::format("the runtime '{}' did not start: this process has one already", processName);
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

void Runtime::end()
{
    m_impl->end();
}

} // namespace kesa
