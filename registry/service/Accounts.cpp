#include "service/Accounts.h"

#include "service/limits.h"

namespace kesa::registry {

namespace {

constexpr std::array<std::size_t, 3> MAX_REQUESTS = {MAX_REGISTRATIONS, MAX_TRACKINGS, MAX_QUERIES};
constexpr std::array<const char*, 3> KINDS = {"registrations", "trackings", "queries"};

/// The one that is there, or a new one.
template <class Key, class Account>
std::shared_ptr<Account> findOrMake(std::map<Key, std::weak_ptr<Account>>& accounts, const Key& key,
                                    const std::string& name)
{
    std::weak_ptr<Account>& known = accounts[key];
    std::shared_ptr<Account> account = known.lock();
    if (!account) {
        account = std::make_shared<Account>();
        account->name = name;
        known = account;
    }
    return account;
}

template <class Key, class Account>
void eraseIfLast(std::map<Key, std::weak_ptr<Account>>& accounts, const Key& key)
{
    const auto found = accounts.find(key);
    if (found != accounts.end() && found->second.expired()) {
        accounts.erase(found);
    }
}

std::string tooMany(const std::string& whose, std::size_t amount, std::size_t more, std::uint64_t limit, const char* of,
                    const char* advice)
{
    return whose + " has " + std::to_string(amount) + ' ' + of + " at the registry, and this takes " +
           std::to_string(more) + " more; the limit is " + std::to_string(limit) + ": " + advice;
}

constexpr const char* BYTES = "bytes of requests";
constexpr const char* STEPS = "steps of matching for a change";
constexpr const char* ADVICE_ON_STEPS = "end some queries, or ask for fewer different globs and with fewer wildcards";

} // namespace

Accounts::Payer Accounts::open(const Owner& owner, const std::string& process)
{
    Payer payer;
    payer.key = {owner.uid, owner.pid, owner.start};
    payer.isTrusted = owner.uid == 0 || (owner.uid >= 0 && owner.uid == m_ownUid);
    const std::string name = "process " + process + (owner.pid > 0 ? " (pid " + std::to_string(owner.pid) + ')' : "");
    if (owner.pid > 0) {
        payer.process = findOrMake(m_processes, payer.key, name);
    } else {
        payer.process = std::make_shared<Account>();
        payer.process->name = name;
    }
    payer.user = findOrMake(m_users, owner.uid,
                            owner.uid < 0 ? "a user that is not known" : "user " + std::to_string(owner.uid));
    return payer;
}

void Accounts::close(Payer& payer)
{
    payer.process.reset();
    payer.user.reset();
    eraseIfLast(m_processes, payer.key);
    eraseIfLast(m_users, std::get<0>(payer.key));
}

std::string Accounts::charge(Payer& payer, const Charge& charge)
{
    std::size_t bytes = charge.bytes;
    std::size_t steps = 0;
    const bool isNew = charge.selection && !payer.user->asked.contains(*charge.selection);
    if (isNew) {
        bytes += charge.selectionBytes;
        steps = charge.steps;
    }
    std::string problem = whyNot(payer, charge, bytes, steps);
    if (!problem.empty()) {
        return problem;
    }
    if (charge.selection) {
        Asked& asked = payer.user->asked.try_emplace(*charge.selection, Asked{0, charge.selectionBytes, charge.steps})
                           .first->second;
        ++asked.queries;
    }
    ++payer.process->requests[charge.kind];
    for (Account* const account : {payer.user.get(), &m_all, payer.isTrusted ? nullptr : &m_others}) {
        if (account != nullptr) {
            account->bytes += bytes;
            account->steps += steps;
        }
    }
    return {};
}

std::string Accounts::whyNot(const Payer& payer, const Charge& charge, std::size_t bytes, std::size_t steps) const
{
    const Account& process = *payer.process;
    const Account& user = *payer.user;
    if (process.requests[charge.kind] >= MAX_REQUESTS[charge.kind]) {
        return tooMany(process.name, process.requests[charge.kind], 1, MAX_REQUESTS[charge.kind], KINDS[charge.kind],
                       "end some before");
    }
    if (!payer.isTrusted && user.bytes + bytes > m_limits.m_maxUserBytes) {
        return tooMany(user.name, user.bytes, bytes, m_limits.m_maxUserBytes, BYTES,
                       R"(end some, or raise "max_user_bytes" in "registry" of its configuration)");
    }
    if (!payer.isTrusted && steps > 0 && user.steps + steps > MAX_USER_STEPS) {
        return tooMany(user.name, user.steps, steps, MAX_USER_STEPS, STEPS, ADVICE_ON_STEPS);
    }
    const bool isOthers = !payer.isTrusted; // who may take half of all
    const Account& all = isOthers ? m_others : m_all;
    const char* const everybody = isOthers ? "everybody but root and the registry's user" : "everybody";
    const std::uint64_t maxBytes = m_limits.m_maxBytes / (isOthers ? 2 : 1);
    if (all.bytes + bytes > maxBytes) {
        return tooMany(everybody, all.bytes, bytes, maxBytes, BYTES,
                       R"(end some, or raise "max_bytes" in "registry" of its configuration)");
    }
    const std::size_t maxSteps = MAX_STEPS / (isOthers ? 2 : 1);
    return steps > 0 && all.steps + steps > maxSteps
               ? tooMany(everybody, all.steps, steps, maxSteps, STEPS, ADVICE_ON_STEPS)
               : std::string();
}

void Accounts::takeBack(Payer& payer, const Charge& charge)
{
    std::size_t bytes = charge.bytes;
    std::size_t steps = 0;
    if (charge.selection) {
        const auto asked = payer.user->asked.find(*charge.selection);
        if (--asked->second.queries == 0) {
            bytes += asked->second.bytes;
            steps = asked->second.steps;
            payer.user->asked.erase(asked);
        }
    }
    --payer.process->requests[charge.kind];
    for (Account* const account : {payer.user.get(), &m_all, payer.isTrusted ? nullptr : &m_others}) {
        if (account != nullptr) {
            account->bytes -= bytes;
            account->steps -= steps;
        }
    }
}

bool Accounts::keep(Payer& payer, std::size_t bytes)
{
    payer.user->news += bytes;
    return !payer.isTrusted && payer.user->news > MAX_USER_WAITING_BYTES;
}

void Accounts::letGo(Payer& payer, std::size_t bytes)
{
    payer.user->news -= bytes;
}

} // namespace kesa::registry
