#ifndef KESA_RESPONSEHANDLERS_TERMINATION_H
#define KESA_RESPONSEHANDLERS_TERMINATION_H

#include <kesa/errors.h>
#include <kesa/responsehandlers/trace.h>
#include <obr/ErrorOutput.h>

namespace kesa::responsehandlers {

/// The rule all response handlers keep: after the first `onError` or `onCompleted` nothing more is passed on. A plain
/// flag, since one thread at a time drives a handler.
class Termination {
public:
    /// Whether a value comes too late; that is traced and recorded as the error of `file` and `line`.
    [[nodiscard]] bool refusesValue(const char* file, int line) const
    {
        if (!m_isTerminated) {
            return false;
        }
        traceAlreadyTerminated("onNext", true);
        return obr::ErrorOutput(file, line, true)(errors::Error, 7, "Request already terminated");
    }

    /// Whether the terminal call `operation` comes too late. When not, the stream has ended with this call: already
    /// before it is passed on, so that a call back from there finds it ended.
    [[nodiscard]] bool refusesEnd(const char* operation)
    {
        if (m_isTerminated) {
            traceAlreadyTerminated(operation, false);
            return true;
        }
        traceSetTerminated(operation);
        m_isTerminated = true;
        return false;
    }

private:
    bool m_isTerminated = false;
};

} // namespace kesa::responsehandlers

#endif
