#include "doctor_tooSlow.h"

#include "Verdict.h"
#include "askProcesses.h"
#include "processNames.h"
#include "seenByProvider.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>

namespace kesactl {
namespace {

using util::config::Value;

struct Follower {
    std::string name;
    std::int64_t pid;

    bool operator<(const Follower& other) const { return std::tie(pid, name) < std::tie(other.pid, other.name); }
};

std::set<Follower> followersTooSlow(const Value& answer)
{
    std::set<Follower> found;
    for (const Value& connection : answer["connections"].items()) {
        Follower follower{connection["process"].toText(), integerOf(connection["pid"])};
        const bool isWaitedFor = connection["held"] == Value(true) || integerOf(connection["queuedBytes"]) > 0;
        if (connection["openedBy"] == Value("peer") && isWaitedFor &&
            seenIn(answer, follower.name, follower.pid).isTooSlow()) {
            found.insert(std::move(follower));
        }
    }
    return found;
}

} // namespace

void addTooSlow(DoctorPage& page, const std::vector<ProcessReport>& reports, comm::TimeNs deadline)
{
    constexpr comm::TimeNs LEAST = 300 * comm::MILLISECOND; // the deadline may have passed while others were asked
    std::map<std::string, std::set<Follower>> before;
    std::vector<std::string> providers;
    for (const ProcessReport& report : reports) {
        if (auto followers = followersTooSlow(report.answer); !followers.empty()) {
            before.emplace(report.name, std::move(followers));
            providers.push_back(report.name);
        }
    }
    if (providers.empty()) {
        return;
    }
    std::vector<std::string> found;
    for (const auto& [provider, said] : askProcesses(providers, std::max(deadline, comm::now() + LEAST))) {
        for (const Follower& follower : followersTooSlow(said.answer)) {
            if (before.at(provider).count(follower) != 0) {
                found.push_back(
                    fmt::format("{} (process {}): {}; {}", follower.name, follower.pid,
                                seenIn(said.answer, follower.name, follower.pid).slownessText(plainName(provider)),
                                AFTER_SLOWNESS));
            }
        }
    }
    page.find(found, "processes take what is sent to them too slowly");
}

} // namespace kesactl
