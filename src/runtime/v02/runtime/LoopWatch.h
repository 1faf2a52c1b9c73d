#ifndef KESA_RUNTIME_V02_LOOPWATCH_H
#define KESA_RUNTIME_V02_LOOPWATCH_H

#include <comm/ActiveObject.h>
#include <comm/OncePerSecond.h>

#include <string>
#include <utility>

namespace kesa::runtime::v02 {

/// Says which handler has kept a loop of the runtime from others for long, or ends the process by an exception. It has
/// to outlive the loop's last event.
class LoopWatch {
public:
    /// `name` is that of the loop in the trace. Before the loop's first event.
    LoopWatch(comm::ActiveObject& loop, std::string name);
    LoopWatch(const LoopWatch&) = delete;
    LoopWatch& operator=(const LoopWatch&) = delete;

    /// On the loop: runs `call`, which tells a handler that `operation` was given of `subject`, the path of a service,
    /// a locator or a pattern.
    template <class Call>
    void tell(const char* operation, const std::string& subject, Call&& call)
    {
        try {
            std::forward<Call>(call)();
        } catch (...) {
            endThrown(operation, subject);
        }
        if (const comm::TimeNs held = m_loop.lap(); held != 0) {
            traceHeld(nameOf(operation, subject), held);
        }
    }

private:
    static std::string nameOf(const char* operation, const std::string& subject);
    [[noreturn]] static void endThrown(const char* operation, const std::string& subject);
    void traceHeld(const std::string& what, comm::TimeNs held);

    comm::ActiveObject& m_loop;
    const std::string m_name;
    comm::OncePerSecond m_traces;
};

} // namespace kesa::runtime::v02

#endif
