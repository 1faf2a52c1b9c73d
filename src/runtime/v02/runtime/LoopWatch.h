#ifndef KESA_RUNTIME_V02_LOOPWATCH_H
#define KESA_RUNTIME_V02_LOOPWATCH_H

#include <comm/ActiveObject.h>
#include <comm/OncePerSecond.h>

#include <string>

namespace kesa::runtime::v02 {

/// Says which handler has kept a loop of the runtime from others for long. It has to outlive the loop's last event.
class LoopWatch {
public:
    /// `name` is that of the loop in the trace. Before the loop's first event.
    LoopWatch(comm::ActiveObject& loop, std::string name);
    LoopWatch(const LoopWatch&) = delete;
    LoopWatch& operator=(const LoopWatch&) = delete;

    /// On the loop, when a handler that `operation` was given has been told of the service at `path`.
    void told(const char* operation, const std::string& path)
    {
        if (const comm::TimeNs held = m_loop.lap(); held != 0) {
            trace("the handler of " + std::string(operation) + ", told of '" + path + "',", held);
        }
    }

private:
    void trace(const std::string& what, comm::TimeNs held);

    comm::ActiveObject& m_loop;
    const std::string m_name;
    comm::OncePerSecond m_traces;
};

} // namespace kesa::runtime::v02

#endif
