#ifndef KESA_REGISTRY_SERVICE_ACCOUNTS_H
#define KESA_REGISTRY_SERVICE_ACCOUNTS_H

#include "store/Owner.h"

#include <kesa/runtime/v02/RegistryLimits.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <tuple>

namespace kesa::registry {

/// What a request costs the registry as long as it is open.
struct Charge {
    std::size_t kind = 0;  ///< registration, tracking, query: the index of its handler
    std::size_t bytes = 0; ///< of memory
    // Of a query: what it asks for, by the key of its selection. A user pays for each once.
    std::shared_ptr<const std::string> selection;
    std::size_t selectionBytes = 0;
    std::size_t steps = 0; ///< that it adds to each change at most
};

/// How much each process and each user has at the registry, and all together. Whoever asks for more than he may is told
/// whose account that is, how much is on it, and the limit.
class Accounts {
    struct Account;
    using ProcessKey = std::tuple<std::int64_t, std::int64_t, std::uint64_t>; ///< user, pid, start

public:
    using Limits = runtime::v02::RegistryLimits;

    /// Those that the requests of one connection are charged to.
    class Payer {
        friend class Accounts;
        std::shared_ptr<Account> process;
        std::shared_ptr<Account> user;
        ProcessKey key;
        bool isTrusted = false;
    };

    /// Root and `ownUid` are trusted: they are held to the limit of all only.
    Accounts(const Limits& limits, std::int64_t ownUid) : m_limits(limits), m_ownUid(ownUid) {}

    /// `process`: what it calls itself. Where the kernel does not know it, each connection counts as one.
    Payer open(const Owner& owner, const std::string& process);
    /// The last request of the payer has been taken back.
    void close(Payer& payer);

    /// Empty when it is charged; else why not, for people.
    std::string charge(Payer& payer, const Charge& charge);
    void takeBack(Payer& payer, const Charge& charge);

    /// What all queries add to each change at most.
    std::size_t steps() const noexcept { return m_all.steps; }
    /// The same of the payer's user.
    std::size_t steps(const Payer& payer) const noexcept { return payer.user->steps; }

    /// News that wait for the payer. Answers whether the processes of his user have more than may wait for them.
    bool keep(Payer& payer, std::size_t bytes);
    void letGo(Payer& payer, std::size_t bytes);

private:
    struct Asked {
        std::size_t queries = 0;
        std::size_t bytes = 0;
        std::size_t steps = 0;
    };
    struct Account {
        std::string name;
        std::array<std::size_t, 3> requests{};
        std::size_t bytes = 0;
        std::size_t steps = 0;
        std::size_t news = 0;               ///< bytes that wait for a user
        std::map<std::string, Asked> asked; ///< of a user
    };

    std::string whyNot(const Payer& payer, const Charge& charge, std::size_t bytes, std::size_t steps) const;

    const Limits m_limits;
    const std::int64_t m_ownUid;
    std::map<ProcessKey, std::weak_ptr<Account>> m_processes;
    std::map<std::int64_t, std::weak_ptr<Account>> m_users;
    Account m_others; ///< of all users that are not trusted
    Account m_all;
};

} // namespace kesa::registry

#endif
