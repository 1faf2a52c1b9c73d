#ifndef COMM_ICALLWATCH_H
#define COMM_ICALLWATCH_H

#include <obr/api.h>

#include <functional>
#include <string>

namespace comm {

/// Who names what a loop calls, when that throws or takes long. A handler that calls those of others has each of them
/// named instead of itself: `current()->tellInside(...)`.
class KESA_API ICallWatch {
public:
    virtual ~ICallWatch();
    /// Runs `call`, which tells a handler that `operation` was given of `subject`. Where it watches.
    virtual void tellInside(const char* operation, const std::string& subject, const std::function<void()>& call) = 0;

    /// Who watches what this thread calls; null where nobody does.
    static ICallWatch* current() noexcept;

    /// `watch` watches what this thread calls while this lives. They nest.
    class KESA_API Scope {
    public:
        explicit Scope(ICallWatch* watch) noexcept;
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        ICallWatch* const m_before;
    };
};

} // namespace comm

#endif
