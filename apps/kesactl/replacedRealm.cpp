#include "replacedRealm.h"

#include "processNames.h"

#include <fmt/format.h>

namespace kesactl {
namespace {

/// "media (812), radio (813) and 7 more"
class Listing {
public:
    void add(const ProcessReport& report)
    {
        if (++m_count <= MOST) {
            m_text += fmt::format("{}{} ({})", m_text.empty() ? "" : ", ", report.plainName(), report.processId());
        }
    }
    std::size_t size() const noexcept { return m_count; }
    std::string text() const { return m_count > MOST ? fmt::format("{} and {} more", m_text, m_count - MOST) : m_text; }

private:
    static constexpr std::size_t MOST = 5;
    std::size_t m_count = 0;
    std::string m_text;
};

} // namespace

ReplacedRealm findReplacedRealm(const RunDirectoryFacts& directory, const std::vector<ProcessReport>& reports)
{
    if (directory.realmState == RunDirectoryFacts::Realm::eMISSING) {
        return reports.empty() ? ReplacedRealm{}
                               : ReplacedRealm{fmt::format("{}/realm was removed, so processes started from now on are "
                                                           "of another realm than those that run",
                                                           directory.path),
                                               "restart all of them, and keep cleaners out of the run directory"};
    }
    Listing before;
    Listing present;
    for (const ProcessReport& report : reports) {
        const std::string_view realm = report.answer["realm"].stringView();
        if (!realm.empty()) {
            (realm == directory.realm ? present : before).add(report);
        }
    }
    if (directory.realmState != RunDirectoryFacts::Realm::eGOOD || before.text().empty()) {
        return {};
    }
    const std::string now = present.text();
    return {fmt::format("{}/realm was replaced while processes ran: {} {} the realm of before, and {}", directory.path,
                        before.text(), before.size() == 1 ? "has" : "have",
                        now.empty()
                            ? "who starts from now on and they do not find each other's services"
                            : fmt::format("{} the present one, so that they do not find each other's services", now)),
            fmt::format("restart {}, and keep cleaners out of the run directory", before.text())};
}

} // namespace kesactl
