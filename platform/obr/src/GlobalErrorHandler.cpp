#include <obr/GlobalErrorHandler.h>
#include <obr/holdAcrossFork.h>

#include <fmt/format.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace obr {
namespace {

/// Never destroyed: static objects may fail an assertion while the process ends.
struct State {
    std::mutex mutex; // an assertion may fail in one thread while another one sets the handler
    std::shared_ptr<const GlobalErrorHandler::Handler> handler; // under mutex; null: the default
    std::array<std::atomic<void (*)()>, 8> flushes{};
};

State& state();

std::mutex& handlerLock()
{
    return state().mutex;
}

State& state()
{
    static State* const instance = [] {
        holdAcrossFork<handlerLock>();
        return new State;
    }();
    return *instance;
}

std::shared_ptr<const GlobalErrorHandler::Handler> currentHandler()
{
    State& s = state();
    const std::lock_guard lock(s.mutex);
    return s.handler;
}

const char* orElse(const char* text, const char* other)
{
    return text != nullptr ? text : other;
}

void writeReport(const GlobalErrorHandler::Report& report)
{
    fmt::memory_buffer line;
    const auto out = std::back_inserter(line);
    if (report.condition != nullptr) {
        fmt::format_to(out, "kesa: assertion '{}' failed", report.condition);
    } else {
        fmt::format_to(out, "kesa: fatal");
    }
    fmt::format_to(out, " in {} ({}:{}): {}\n", orElse(report.function, "?"), orElse(report.file, "?"), report.line,
                   orElse(report.message, "no message"));
    // Nobody may keep the process from ending by not reading this.
    pollfd ready{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&ready, 1, 1000) == 1) {
        [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
    }
}

[[noreturn]] void endProcess()
{
    for (std::atomic<void (*)()>& entry : state().flushes) {
        // Taken out, so that a flush that fails itself cannot bring us here for ever.
        if (void (*flush)() = entry.exchange(nullptr)) {
            flush();
        }
    }
    std::abort();
}

} // namespace

void GlobalErrorHandler::doAssert(bool holds, const char* condition, const char* file, int line, const char* function,
                                  const char* message)
{
    if (holds) {
        return;
    }
    const Report report{condition, file, line, function, message};
    if (const auto handler = currentHandler()) {
        (*handler)(report);
        return;
    }
    writeReport(report);
    endProcess();
}

void GlobalErrorHandler::doAbort(const char* file, int line, const char* function, const char* message)
{
    const Report report{nullptr, file, line, function, message};
    if (const auto handler = currentHandler()) {
        (*handler)(report);
    } else {
        writeReport(report);
    }
    endProcess();
}

GlobalErrorHandler::Handler GlobalErrorHandler::setHandler(Handler handler)
{
    std::shared_ptr<const Handler> next;
    if (handler) {
        next = std::make_shared<const Handler>(std::move(handler));
    }
    State& s = state();
    {
        const std::lock_guard lock(s.mutex);
        s.handler.swap(next);
    }
    return next != nullptr ? *next : Handler();
}

void GlobalErrorHandler::atFatal(void (*flush)())
{
    for (std::atomic<void (*)()>& entry : state().flushes) {
        void (*expected)() = nullptr;
        if (entry.compare_exchange_strong(expected, flush) || expected == flush) {
            return;
        }
    }
    doAssert(false, "flushes is not full", __FILE__, __LINE__, __func__, "too many functions to call at a fatal error");
}

} // namespace obr
