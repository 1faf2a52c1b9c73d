#ifndef TRACING_LINELIMIT_H
#define TRACING_LINELIMIT_H

#include <obr/api.h>

#include <string>
#include <string_view>

namespace tracing {

/// Bounds what somebody else can make this process trace: who handles what another one sent has a scope of it around
/// that. It judges the warnings and errors of this system's own channels; details, which nobody sees who has not asked
/// for them, a program's own channels and the event log are not bounded.
class KESA_API ILineLimit {
public:
    virtual ~ILineLimit();
    /// Whether `text` may be written, and as what: `changed` is written instead unless it is left empty. On the thread
    /// of the scope; must not trace.
    virtual bool pass(std::string_view text, std::string& changed) = 0;

    /// While one lives, `limit` judges the lines of its thread. The innermost one counts.
    class KESA_API Scope {
    public:
        explicit Scope(ILineLimit& limit) noexcept;
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        ILineLimit* m_before;
    };
};

} // namespace tracing

#endif
