#include "policy/Permit.h"

#include <kesa/serviceregistry/MetainfoKeys.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>

#include <algorithm>
#include <atomic>
#include <set>

namespace kesa::registry {

namespace {

std::uint64_t nextNumber() noexcept
{
    static std::atomic<std::uint64_t> last = 0;
    return ++last;
}

constexpr std::array<Right, RIGHT_NAMES.size()> RIGHTS = {Right::eREGISTER, Right::eSEE};

} // namespace

bool isPublic(const Record& record)
{
    const auto& metainfo = record.serviceDef.metainfo;
    bool isPublic = false;
    return metainfo && !(*metainfo)[serviceregistry::PUBLIC].get(isPublic) && isPublic;
}

Permit::Permit(std::int64_t uid, std::int64_t ownUid)
    : Sight(nextNumber()), m_uid(uid), m_ownUid(ownUid), m_hasRules(false)
{}

Permit::Permit(std::int64_t uid, const std::vector<access::Rule>& rules, const std::vector<std::size_t>& concerning)
    : Sight(nextNumber()), m_uid(uid), m_ownUid(-1), m_hasRules(true)
{
    for (const Right right : RIGHTS) {
        access::PatternTrie& paths = m_paths[static_cast<std::size_t>(right)];
        std::set<std::string_view> globs; // the first of equal ones is enough
        for (const std::size_t number : concerning) {
            if (!rules[number].lets(nameOf(right))) {
                continue;
            }
            for (const auto& [glob, patterns] : rules[number].paths) {
                if (globs.insert(glob).second) {
                    paths.insert(number, glob, patterns);
                }
            }
        }
    }
}

std::optional<std::size_t> Permit::find(Right right, const std::string& path)
{
    m_matching.clear();
    m_paths[static_cast<std::size_t>(right)].match(path, m_matching);
    const auto first = std::min_element(m_matching.begin(), m_matching.end());
    return first == m_matching.end() ? std::nullopt : std::optional<std::size_t>(*first);
}

bool Permit::sees(const Record& record)
{
    if (!m_hasRules || record.number == 0) {
        return judge(record);
    }
    if (record.number != m_lastRecord) {
        m_lastVerdict = judge(record);
        m_lastRecord = record.number;
    }
    return m_lastVerdict;
}

bool Permit::judge(const Record& record)
{
    return seesOf(record.uid, record.path()) || (!m_hasRules && isPublic(record));
}

bool Permit::seesOf(std::int64_t uid, const std::string& path)
{
    if (uid == m_uid || path == serviceregistry::ServiceRegistryPex::SERVICE_PATH) {
        return true;
    }
    return m_hasRules ? find(Right::eSEE, path).has_value() : uid == 0 || uid == m_ownUid;
}

} // namespace kesa::registry
