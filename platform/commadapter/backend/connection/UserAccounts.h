#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_USERACCOUNTS_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_USERACCOUNTS_H

#include "backend/connection/QueuedBytes.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace kesa::commadapter {

/// What the peers of each user make this process keep, beside what each connection may have. This process's own user
/// and root may make it keep much, as they could end it as well; every other user has a share that leaves the rest to
/// others. Loop only.
class UserAccounts {
public:
    enum class Kind : std::uint8_t {
        eCONNECTIONS, ///< number
        ePATHS,       ///< bytes for paths that clients are interested in
        eREQUESTS,    ///< bytes for requests that services have not ended
        eUNFINISHED,  ///< bytes of messages that have begun to arrive, as declared, and of requests that wait
        eSTANDING,    ///< of those, what connections have that wait for room themselves
    };

    UserAccounts();

    /// This process's own user, root, and this process itself.
    bool isTrusted(std::int64_t uid) const noexcept { return uid == m_ownUid || uid <= 0; }
    /// Why the user may not have so much more; empty when he may, as he always may when he has nothing, but for
    /// connections: some of these are kept for who is trusted, and some for users who have few, however many others
    /// have the rest.
    std::string whyNoMore(Kind kind, std::int64_t uid, std::size_t more) const;
    /// Whether all that is unfinished of the user's waits for room, but for `own`: then none would ever be there.
    bool isStuck(std::int64_t uid, std::size_t own) const;
    /// His amount has changed.
    void change(Kind kind, std::int64_t uid, std::size_t before, std::size_t after);

    /// What is queued for him, to be counted by each of his connections; null for who is trusted.
    std::shared_ptr<QueuedBytes> queuedFor(std::int64_t uid);

    /// Of one process, as each connection costs descriptors and nobody needs several.
    static std::size_t mostConnectionsOfProcess() noexcept;

private:
    using Amounts = std::array<std::size_t, 5>;

    std::size_t limit(Kind kind, std::int64_t uid) const noexcept;
    std::string whyNoneLeft(std::size_t has, std::size_t more) const;

    const std::int64_t m_ownUid;
    std::map<std::int64_t, Amounts> m_amounts;
    std::map<std::int64_t, std::weak_ptr<QueuedBytes>> m_queued;
};

} // namespace kesa::commadapter

#endif
