#include <comm/PeerLines.h>

#include <iterator>
#include <utility>

namespace comm {

namespace {

/// Whom the kernel does not know, and, while very many peers cause lines, all others together.
constexpr std::int64_t OTHERS = 0;

std::string nameOf(std::int64_t pid)
{
    return pid == OTHERS ? "other processes" : "process " + std::to_string(pid);
}

} // namespace

std::optional<std::string> PeerLines::pass(std::int64_t pid, TimeNs now)
{
    // Nobody waits: in a child of a fork the lock may be held by a thread that is not there.
    const std::unique_lock lock(m_mutex, std::try_to_lock);
    if (!lock) {
        return "";
    }
    Account& account = accountOf(pid, now);
    std::string end;
    if (now >= account.end) {
        const std::uint64_t leftOut = std::exchange(account, {now + SECOND, 0, 0}).leftOut;
        end = leftOut == 0 ? "" : "; " + std::to_string(leftOut) + " more because of " + nameOf(pid) + " suppressed";
    }
    if (account.lines >= LINES) {
        ++account.leftOut;
        return std::nullopt;
    }
    if (++account.lines == LINES) {
        end += "; more because of " + nameOf(pid) + " are suppressed for a second";
    }
    return end;
}

/// `pid` becomes the one of the account.
PeerLines::Account& PeerLines::accountOf(std::int64_t& pid, TimeNs now)
{
    pid = pid > 0 ? pid : OTHERS;
    if (m_accounts.size() >= MOST && m_accounts.count(pid) == 0) {
        for (auto account = m_accounts.begin(); account != m_accounts.end();) {
            account = now >= account->second.end ? m_accounts.erase(account) : std::next(account);
        }
        pid = m_accounts.size() >= MOST ? OTHERS : pid;
    }
    return m_accounts[pid];
}

} // namespace comm
