#include "adviseAround.h"

#include "Failure.h"
#include "options.h"

#include <util/shellWord.h>

#include <fmt/format.h>

namespace kesactl {
namespace {

/// The longest path above that is one of a service.
std::string findAbove(const System& system, const std::string& path, comm::TimeNs deadline)
{
    std::string glob;
    for (std::size_t end = path.rfind('/'); end != 0; end = path.rfind('/', end - 1)) {
        glob += (glob.empty() ? "{" : ",") + literal(path.substr(0, end));
    }
    if (glob.empty()) {
        return {};
    }
    const Services above = system.view(glob + '}')->list(deadline, false).services;
    return above.empty() ? std::string() : above.rbegin()->first; // each begins with the one before
}

} // namespace

std::string adviseAround(const System& system, const std::string& path, comm::TimeNs deadline)
try {
    if (const std::string above = findAbove(system, path, deadline); !above.empty()) {
        return fmt::format("{0} is a service; kesactl call {1} {2} asks it for the resource {3}", above,
                           util::shellWord(above), util::shellWord(path.substr(above.size())),
                           path.substr(above.size()));
    }
    const std::string folder = literal(path) + "/**";
    if (const auto below = system.view(folder)->list(deadline, true).services; !below.empty()) {
        return fmt::format("{} below it: kesactl list {}",
                           below.size() == 1 ? "one service is" : fmt::format("{} services are", below.size()),
                           util::shellWord(folder));
    }
    if (literal(path) != path && checkGlob(path).empty() && !system.view(path)->list(deadline, true).services.empty()) {
        return fmt::format("a path is one service; kesactl list {} shows those that match", util::shellWord(path));
    }
    return {};
} catch (const Failure&) {
    return {};
}

} // namespace kesactl
