#include "backend/connection/UserAccounts.h"

#include <fmt/format.h>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace kesa::commadapter {

namespace {

constexpr std::size_t MIB = 1U << 20U;

/// A client's connection has a socket and its process's pidfd; what else a process opens has the rest.
constexpr std::size_t DESCRIPTORS_PER_CONNECTION = 2;
constexpr std::size_t DESCRIPTORS_KEPT_FREE = 128;
/// Whatever the limit of descriptors is, a table of connections need not be larger.
constexpr std::size_t MOST_CONNECTIONS = 16384;
/// Nobody needs as many: one process has one connection to another, and each tool it starts one.
constexpr std::size_t MOST_OF_PROCESS = 128;

// 20,000 paths of common length take 8 MiB; a message has 16 MiB by default, and each may have two under way.
constexpr std::size_t PATHS_OF_OTHERS = 8 * MIB;
constexpr std::size_t PATHS_OF_OWN = 128 * MIB;
// 100,000 requests that stay open, as each registration and tracking does, take 32 MiB.
constexpr std::size_t REQUESTS_OF_OTHERS = 32 * MIB;
constexpr std::size_t REQUESTS_OF_OWN = 256 * MIB;
constexpr std::size_t UNFINISHED_OF_OTHERS = 32 * MIB;
constexpr std::size_t UNFINISHED_OF_OWN = 128 * MIB;

/// The limit of descriptors may be another one the next time.
std::size_t mostAtAll() noexcept
{
    rlimit limit{};
    const std::size_t descriptors = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 1024;
    const std::size_t usable = descriptors - std::min(descriptors / 2, DESCRIPTORS_KEPT_FREE);
    return std::min(usable / DESCRIPTORS_PER_CONNECTION, MOST_CONNECTIONS);
}

const char* describe(UserAccounts::Kind kind)
{
    switch (kind) {
    case UserAccounts::Kind::eCONNECTIONS:
        return "connections";
    case UserAccounts::Kind::ePATHS:
        return "bytes for paths that it asks for";
    case UserAccounts::Kind::eREQUESTS:
        return "bytes of open requests";
    default:
        return "bytes of messages that are unfinished or wait";
    }
}

} // namespace

UserAccounts::UserAccounts() : m_ownUid(::geteuid()) {}

std::size_t UserAccounts::mostConnectionsOfProcess() noexcept
{
    return std::min(MOST_OF_PROCESS, mostAtAll() / 4);
}

std::size_t UserAccounts::limit(Kind kind, std::int64_t uid) const noexcept
{
    switch (kind) {
    case Kind::eCONNECTIONS:
        return isTrusted(uid) ? mostAtAll() : mostAtAll() / 2;
    case Kind::ePATHS:
        return isTrusted(uid) ? PATHS_OF_OWN : PATHS_OF_OTHERS;
    case Kind::eREQUESTS:
        return isTrusted(uid) ? REQUESTS_OF_OWN : REQUESTS_OF_OTHERS;
    default:
        return isTrusted(uid) ? UNFINISHED_OF_OWN : UNFINISHED_OF_OTHERS;
    }
}

std::string UserAccounts::whyNoMore(Kind kind, std::int64_t uid, std::size_t more) const
{
    const auto found = m_amounts.find(uid);
    const std::size_t has = found == m_amounts.end() ? 0 : found->second[static_cast<std::size_t>(kind)];
    const std::size_t most = limit(kind, uid);
    if (kind == Kind::eCONNECTIONS && !isTrusted(uid)) {
        if (std::string why = whyNoneLeft(has, more); !why.empty()) {
            return why;
        }
    }
    return has == 0 || has + more <= most
               ? std::string()
               : fmt::format("the processes of user {} have {} {} here, and with {} more would have more than the {} "
                             "that they may",
                             uid, has, describe(kind), more, most);
}

bool UserAccounts::isStuck(std::int64_t uid, std::size_t own) const
{
    const auto found = m_amounts.find(uid);
    if (found == m_amounts.end()) {
        return false;
    }
    const Amounts& amounts = found->second;
    return amounts[static_cast<std::size_t>(Kind::eUNFINISHED)] <=
           amounts[static_cast<std::size_t>(Kind::eSTANDING)] + own;
}

/// Of connections, for a user that is not trusted and has so many.
std::string UserAccounts::whyNoneLeft(std::size_t has, std::size_t more) const
{
    std::size_t all = 0;
    for (const auto& [uid, amounts] : m_amounts) {
        all += isTrusted(uid) ? 0 : amounts[static_cast<std::size_t>(Kind::eCONNECTIONS)];
    }
    const std::size_t most = mostAtAll();
    const bool hasFew = has + more <= most / 16;
    const std::size_t bound = most - (hasFew ? most / 8 : most / 4);
    return all + more <= bound ? std::string()
                               : fmt::format("the processes of other users have {} connections here, and together they "
                                             "may have {}",
                                             all, bound);
}

std::shared_ptr<QueuedBytes> UserAccounts::queuedFor(std::int64_t uid)
{
    if (isTrusted(uid)) {
        return nullptr;
    }
    std::erase_if(m_queued, [](const auto& each) { return each.second.expired(); });
    auto queued = m_queued[uid].lock();
    if (!queued) {
        queued = std::make_shared<QueuedBytes>();
        m_queued[uid] = queued;
    }
    return queued;
}

void UserAccounts::change(Kind kind, std::int64_t uid, std::size_t before, std::size_t after)
{
    if (before == after) {
        return;
    }
    const auto entry = m_amounts.try_emplace(uid).first;
    entry->second[static_cast<std::size_t>(kind)] += after - before;
    if (entry->second == Amounts{}) {
        m_amounts.erase(entry);
    }
}

} // namespace kesa::commadapter
