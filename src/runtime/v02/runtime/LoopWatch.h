#ifndef KESA_RUNTIME_V02_LOOPWATCH_H
#define KESA_RUNTIME_V02_LOOPWATCH_H

#include <comm/ActiveObject.h>
#include <comm/ICallWatch.h>
#include <comm/LoopHold.h>
#include <comm/OncePer.h>

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace kesa::runtime::v02 {

/// Says which handler has kept a loop of the runtime from others for long, is keeping it, or ends the process by an
/// exception. It has to outlive the loop's last event.
class LoopWatch final : public comm::ICallWatch {
public:
    /// `name` is that of the loop in the trace. Before the loop's first event.
    LoopWatch(const std::shared_ptr<comm::ActiveObject>& loop, std::string name);
    LoopWatch(const LoopWatch&) = delete;
    LoopWatch& operator=(const LoopWatch&) = delete;

    /// On the loop: runs `call`, which tells a handler that `operation` was given of `subject`, the path of a service,
    /// a locator or a pattern.
    template <class Call>
    void tell(const char* operation, const std::string& subject, Call&& call)
    {
        try {
            const auto describe = [operation, &subject] { return shortNameOf(operation, subject); };
            const comm::LoopHold::Call<std::remove_const_t<decltype(describe)>> underWay(*m_hold, describe);
            const Scope scope(this);
            std::forward<Call>(call)();
        } catch (...) {
            endThrown(operation, subject);
        }
        if (const comm::TimeNs held = m_loop.lap(); held != 0) {
            traceHeld(nameOf(operation, subject), held);
        }
    }

    void tellInside(const char* operation, const std::string& subject, const std::function<void()>& call) override
    {
        tell(operation, subject, call);
    }

    /// What holds the loop, for other threads; may be kept longer. Never null.
    std::shared_ptr<const comm::LoopHold> hold() const noexcept { return m_hold; }

private:
    static std::string shortNameOf(const char* operation, const std::string& subject);
    static std::string nameOf(const char* operation, const std::string& subject);
    [[noreturn]] static void endThrown(const char* operation, const std::string& subject);
    void traceHeld(const std::string& what, comm::TimeNs held);

    comm::ActiveObject& m_loop;
    const std::shared_ptr<comm::LoopHold> m_hold;
    comm::OncePer m_traces{comm::SECOND};
};

} // namespace kesa::runtime::v02

#endif
