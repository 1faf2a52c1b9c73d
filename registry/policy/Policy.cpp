#include "policy/Policy.h"

#include <obr/visible.h>

#include <fmt/format.h>

#include <utility>

namespace kesa::registry {

namespace {

/// Of identities whose permits are remembered, and of names of users.
constexpr std::size_t MOST_KNOWN = 4096;
/// Of the rules for somebody that a refusal names.
constexpr std::size_t MOST_NAMED = 3;

} // namespace

Policy::Policy(std::int64_t ownUid, std::vector<Rule> rules, std::string file, const IAccounts& accounts)
    : m_ownUid(ownUid), m_rules(std::move(rules)), m_file(std::move(file)), m_accounts(&accounts)
{
    for (const Rule& rule : *m_rules) {
        m_asksForProcess = m_asksForProcess || rule.processes.has_value();
    }
}

std::vector<std::size_t> Policy::concerning(const Identity& identity) const
{
    std::vector<std::size_t> numbers;
    for (std::size_t i = 0; i < m_rules->size(); ++i) {
        if ((*m_rules)[i].fits(identity)) {
            numbers.push_back(i);
        }
    }
    return numbers;
}

PermitPtr Policy::permitOf(const Identity& identity)
{
    if (identity.uid == 0 || (identity.uid >= 0 && identity.uid == m_ownUid)) {
        return nullptr;
    }
    const auto known = m_known.find(identity);
    if (known != m_known.end()) {
        return known->second;
    }
    std::vector<std::size_t> numbers = m_rules ? concerning(identity) : std::vector<std::size_t>();
    std::weak_ptr<Permit>& shared = m_permits[{identity.uid, numbers}];
    PermitPtr permit = shared.lock();
    if (!permit) {
        permit = m_rules ? std::make_shared<Permit>(identity.uid, *m_rules, numbers)
                         : std::make_shared<Permit>(identity.uid, m_ownUid);
        shared = permit;
    }
    if (m_known.size() >= MOST_KNOWN) { // they are found again
        m_known.clear();
        std::erase_if(m_permits, [](const auto& each) { return each.second.expired(); });
    }
    m_known.emplace(identity, permit);
    return permit;
}

std::string Policy::placeOf(std::size_t rule) const
{
    const int line = (*m_rules)[rule].line;
    return fmt::format("rule {} ({}{})", rule + 1, m_file, line > 0 ? fmt::format(":{}", line) : "");
}

std::string Policy::userName(std::int64_t uid)
{
    if (uid < 0 || m_accounts == nullptr) {
        return {};
    }
    if (m_userNames.size() >= MOST_KNOWN) {
        m_userNames.clear();
    }
    const auto [known, isNew] = m_userNames.try_emplace(uid);
    if (isNew) {
        known->second = m_accounts->userName(uid);
    }
    return known->second;
}

std::string Policy::describe(const Identity& identity)
{
    const std::string name = userName(identity.uid);
    const std::string uid = identity.uid < 0 ? "unknown" : std::to_string(identity.uid);
    return fmt::format("{}{}", name.empty() || name == uid ? "user " + uid : fmt::format("user {} (uid {})", name, uid),
                       identity.process.empty() ? "" : ", process " + obr::visible(identity.process));
}

std::string Policy::whyRefused(const Identity& identity, Right right, const std::string& path)
{
    const std::string missing = fmt::format("no rule of the policy in {} lets {} {} \"{}\"", m_file, describe(identity),
                                            nameOf(right), obr::glimpse(path));
    std::string others;
    std::size_t count = 0;
    for (const std::size_t number : concerning(identity)) {
        if ((*m_rules)[number].lets(right) && ++count <= MOST_NAMED) {
            others.append(others.empty() ? "" : ", ").append(placeOf(number));
        }
    }
    if (count == 0) {
        return fmt::format("{}: none lets him {} anything", missing, nameOf(right));
    }
    return fmt::format("{}: {} {} for other paths{}", missing, others, count == 1 ? "is" : "are",
                       count > MOST_NAMED ? fmt::format(", and so are {} more", count - MOST_NAMED) : "");
}

/// Without rules.
std::string Policy::whySeen(const Identity& identity, const Record* record) const
{
    if (record == nullptr) {
        return "there is no policy, and no service: it depends on who provides it";
    }
    if (record->uid == identity.uid) {
        return "his own user provides it";
    }
    if (record->uid == 0 || record->uid == m_ownUid) {
        return "it is provided by root or the registry's own user";
    }
    return isPublic(*record) ? "it is public" : "another user provides it, it is not public, and there is no policy";
}

Policy::Verdict Policy::judge(const Identity& identity, Right right, const std::string& path, const Record* record)
{
    const PermitPtr permit = permitOf(identity);
    if (!permit) {
        return {true, "root and the registry's own user may everything"};
    }
    if (right == Right::eSEE && record != nullptr && permit->sees(*record) &&
        (!m_rules || !permit->find(right, path))) {
        return {true, m_rules ? (record->uid == identity.uid ? "his own user provides it" : "everybody sees it")
                              : whySeen(identity, record)};
    }
    if (!m_rules) {
        return right == Right::eREGISTER ? Verdict{true, "there is no policy: everybody may register what is free"}
                                         : Verdict{false, whySeen(identity, record)};
    }
    if (const auto rule = permit->find(right, path)) {
        const Rule& found = (*m_rules)[*rule];
        return {true, fmt::format("{}: {} {}", placeOf(*rule), found.who, found.what)};
    }
    return {false, whyRefused(identity, right, path)};
}

} // namespace kesa::registry
