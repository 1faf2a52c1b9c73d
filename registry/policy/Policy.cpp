#include "policy/Policy.h"

#include <obr/visible.h>

#include <fmt/format.h>

#include <utility>

namespace kesa::registry {

namespace {

/// Of identities whose permits are remembered.
constexpr std::size_t MOST_KNOWN = 4096;

} // namespace

Policy::Policy(std::int64_t ownUid, std::vector<access::Rule> rules, std::string file,
               const access::IAccounts& accounts)
    : m_ownUid(ownUid), m_rules(std::move(rules)), m_file(std::move(file)), m_names(&accounts)
{
    for (const access::Rule& rule : *m_rules) {
        m_asksForProcess = m_asksForProcess || rule.processes.has_value();
    }
}

std::string Policy::summary() const
{
    return m_rules ? fmt::format("{} rule{} of {}", m_rules->size(), m_rules->size() == 1 ? "" : "s", m_file)
                   : "none, so every user may register what is free";
}

Policy::Known& Policy::know(const access::Identity& identity)
{
    if (m_known.size() >= MOST_KNOWN) { // they are found again
        m_known.clear();
        std::erase_if(m_permits, [](const auto& each) { return each.second.expired(); });
    }
    const auto [known, isNew] = m_known.try_emplace(identity);
    if (isNew) {
        std::vector<std::size_t> numbers =
            m_rules ? access::concerning(*m_rules, identity) : std::vector<std::size_t>();
        std::weak_ptr<Permit>& shared = m_permits[{identity.uid, numbers}];
        known->second.permit = shared.lock();
        if (!known->second.permit) {
            known->second.permit = m_rules ? std::make_shared<Permit>(identity.uid, *m_rules, numbers)
                                           : std::make_shared<Permit>(identity.uid, m_ownUid);
            shared = known->second.permit;
        }
    }
    return known->second;
}

PermitPtr Policy::permitOf(const access::Identity& identity)
{
    const bool mayEverything = identity.uid == 0 || (identity.uid >= 0 && identity.uid == m_ownUid);
    return mayEverything ? nullptr : know(identity).permit;
}

/// Those that would let somebody do it elsewhere, or as another process.
std::string Policy::whichOthers(const access::Identity& identity, Right right) const
{
    std::vector<std::size_t> ofPaths;
    std::vector<std::size_t> ofProcesses;
    for (std::size_t i = 0; i < m_rules->size(); ++i) {
        const access::Rule& rule = (*m_rules)[i];
        if (rule.lets(nameOf(right)) && rule.fitsUser(identity)) {
            (rule.fits(identity) ? ofPaths : ofProcesses).push_back(i);
        }
    }
    const std::string byPath = access::areFor(*m_rules, ofPaths, "other paths");
    const std::string byProcess = access::areFor(*m_rules, ofProcesses, access::otherProcesses(identity));
    return byPath.empty() && byProcess.empty() ? fmt::format("none lets him {} anything", nameOf(right))
                                               : byPath + (byPath.empty() || byProcess.empty() ? "" : "; ") + byProcess;
}

/// Which rules there are for somebody is kept: who asks without end costs a text.
std::string Policy::whyRefused(const access::Identity& identity, Right right, const std::string& path)
{
    Known& known = know(identity);
    std::string& others = known.others[static_cast<std::size_t>(right)];
    if (known.who.empty()) {
        known.who = describe(identity);
    }
    if (others.empty()) {
        others = whichOthers(identity, right);
    }
    return fmt::format("no rule of the policy in {} lets {} {} \"{}\": {}", m_file, known.who, nameOf(right),
                       obr::glimpse(path), others);
}

/// Without rules.
std::string Policy::whySeen(const access::Identity& identity, const Record* record) const
{
    if (record == nullptr) {
        return "there is no policy, and no service that is seen by who asks: it depends on who provides it";
    }
    if (record->uid == identity.uid) {
        return "his own user provides it";
    }
    if (record->uid == 0 || record->uid == m_ownUid) {
        return "it is provided by root or the registry's own user";
    }
    return isPublic(*record) ? "it is public" : "another user provides it, it is not public, and there is no policy";
}

Policy::Verdict Policy::judge(const access::Identity& identity, Right right, const std::string& path,
                              const Record* record)
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
        const access::Rule& found = (*m_rules)[*rule];
        return {true, fmt::format("{}: {} {}", access::placeOf(*m_rules, *rule), found.who, found.what)};
    }
    const bool isPublicInVain = right == Right::eSEE && record != nullptr && isPublic(*record);
    return {false, whyRefused(identity, right, path) +
                       (isPublicInVain ? "; that it is marked as public has no effect, since there is a policy" : "")};
}

} // namespace kesa::registry
