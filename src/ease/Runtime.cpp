#include "EndSignals.h"
#include "HoldWatch.h"

#include <comm/Clock.h>
#include <kesa/ease/Runtime.h>
#include <kesa/processName.h>
#include <obr/GlobalErrorHandler.h>
#include <obr/visible.h>
#include <tracing/Channel.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fmt/format.h>
#include <optional>
#include <unistd.h>

namespace kesa {

using runtime::v02::KesaRuntime;

namespace {

std::atomic<pid_t> startedIn{0}; ///< the process that has the runtime; a child has its own number

void traceThrown(const char* what)
{
    static const ::tracing::Channel channel("KESA_EASE");
    KESA_TRACE(channel, 4,
               "[runUntilSignal] its work has thrown, which ends this process unless the caller catches it: %s", what);
}

void callNamed(const std::function<void()>& work)
{
    try {
        work();
    } catch (const std::exception& exception) {
        traceThrown(exception.what());
        throw;
    } catch (...) {
        traceThrown("no std::exception");
        throw;
    }
}

} // namespace

class Runtime::Impl {
public:
    Impl(const std::string& processName, const std::string& fallbackDocument)
    {
        if (KesaRuntime::isRunning() && ::getpid() != startedIn) {
            m_error =
                fmt::format("the runtime '{}' did not start: this process was forked from one that has a runtime, "
                            "and after fork a child may use nothing of Kesa: call exec, or fork before the start",
                            processName);
        } else if (KesaRuntime::isRunning()) {
            m_error =
                fmt::format("the runtime '{}' did not start: this process has one already; use that, or end it before",
                            processName);
        } else if (const std::string complaint = complaintAboutProcessName(processName); !complaint.empty()) {
            m_error = "the runtime did not start: " + complaint;
        } else {
            start(processName, fallbackDocument);
        }
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    ~Impl() { end(); }

    bool isRunning() const noexcept { return m_isRunning; }
    const std::string& error() const noexcept { return m_error; }
    int runUntilSignal() { return m_isRunning ? wait(comm::NEVER) : 0; }
    int runUntilSignal(comm::TimeNs period, const std::function<void()>& work)
    {
        if (!m_isRunning) {
            return 0;
        }
        comm::TimeNs next = comm::now();
        int signal = wait(next);
        for (; m_isRunning && signal == 0; signal = wait(next)) {
            callNamed(work);
            const comm::TimeNs late = comm::now() - next;
            next += (late / period + 1) * period;
        }
        return signal;
    }
    void end()
    {
        if (m_isRunning) {
            m_watch->expectEnd();
            KesaRuntime::shutdown();
            m_isRunning = false;
            m_watch.reset();
        }
    }

private:
    void start(const std::string& processName, const std::string& fallbackDocument)
    {
        m_signals.emplace();
        if (KesaRuntime::initInstance(processName, fallbackDocument)) {
            KesaRuntime::shutdown(); // an instance is there all the same
            m_signals.reset();
            m_error = fmt::format("the runtime '{}' did not start: its configuration names no backend, or no registry "
                                  "that one can reach; kesactl check-config explains what is wrong with it",
                                  processName);
            return;
        }
        m_isRunning = true;
        startedIn = ::getpid();
        m_watch.emplace(KesaRuntime::getInstance()->reasons());
    }
    int wait(comm::TimeNs deadline)
    {
        const int signal = m_signals->wait(deadline);
        if (signal != 0 && m_watch) {
            m_watch->expectEnd();
        }
        return signal;
    }

    std::optional<detail::EndSignals> m_signals; ///< from before the runtime's threads on
    bool m_isRunning = false;
    std::optional<detail::HoldWatch> m_watch; ///< while it runs
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

int Runtime::runUntilSignal(Duration period, const std::function<void()>& work)
{
    if (period.nanoseconds() <= std::chrono::nanoseconds::zero()) {
        obr::GlobalErrorHandler::doAssert(false, "period > 0", __FILE__, __LINE__, __func__,
                                          "kesa::Runtime::runUntilSignal would call its work without a rest: give a "
                                          "period of more than nothing, or call runUntilSignal() without work");
        return 0;
    }
    return m_impl->runUntilSignal(std::min<comm::TimeNs>(period.nanoseconds().count(), comm::NEVER / 4), work);
}

void Runtime::end()
{
    m_impl->end();
}

Runtime startOrExit(const std::string& processName, const std::string& fallbackDocument)
{
    auto impl = std::make_unique<Runtime::Impl>(processName, fallbackDocument);
    if (!impl->isRunning()) {
        fmt::print(stderr, "{}\n", obr::visible(impl->error()));
        std::exit(1); // NOLINT(concurrency-mt-unsafe): there is one thread so far
    }
    return Runtime(std::move(impl));
}

} // namespace kesa
