#include "policy/Rule.h"

#include <algorithm>

namespace kesa::registry {

IAccounts::~IAccounts() = default;

bool Rule::fits(const Identity& identity) const
{
    if (users && users->count(identity.uid) == 0) {
        return false;
    }
    if (groups && groups->count(identity.gid) == 0 && members.count(identity.uid) == 0) {
        return false;
    }
    return !processes || (!identity.process.empty() &&
                          std::any_of(processes->begin(), processes->end(), [&identity](const Glob& glob) {
                              return glob.second.match('/' + identity.process);
                          }));
}

} // namespace kesa::registry
