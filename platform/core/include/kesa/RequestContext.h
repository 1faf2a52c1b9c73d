#ifndef KESA_REQUESTCONTEXT_H
#define KESA_REQUESTCONTEXT_H

#include <comm/Clock.h>
#include <kesa/IPeer.h>
#include <kesa/IStreamControl.h>
#include <obr/UUID.h>
#include <obr/api.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace kesa {

/// Who asks: the peer of the request that is being handled on this thread. `pid`, `uid`, `gid` and `start` are the
/// kernel's word, the process name and instance the peer's own, which any process could repeat.
class KESA_API RequestContext {
public:
    obr::UUID instance;    ///< differs for each start of a process
    std::string process;   ///< the name the peer said hello with
    std::string transport; ///< "ipc", "memory", "local"
    std::string realm;
    std::int64_t pid = -1; ///< -1 when unknown
    std::int64_t uid = -1;
    std::int64_t gid = -1;
    /// When the process `pid` began, in ticks since the machine's start; 0 when unknown. Who keeps the number of a
    /// process keeps this beside it: the number alone may be another's later.
    std::uint64_t start = 0;
    std::string subject; ///< of the peer's certificate, where there is one
    std::shared_ptr<IPeer> peer;
    IStreamControl* stream = nullptr; ///< of the request being handled, inside that call only

    /// The context of the request being handled on this thread; null outside of one, and for a caller in this process.
    static const RequestContext* current() noexcept;
    /// When the time limit of the request being handled on this thread runs out, on the clock of `comm::now`; nothing
    /// when it has none. Whoever asks is told 504 then, and the request is cancelled. Callers in this process have
    /// limits, too. A service that answers later keeps it with the request.
    static std::optional<comm::TimeNs> deadline() noexcept;

    /// Sets context and deadline for the scope of a call.
    class KESA_API Scope {
    public:
        explicit Scope(const RequestContext* context, std::optional<comm::TimeNs> deadline = {}) noexcept;
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        const RequestContext* m_context; ///< of before, as the next one
        std::optional<comm::TimeNs> m_deadline;
    };
};

} // namespace kesa

#endif
