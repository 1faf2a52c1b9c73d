#include "mayBeHidden.h"

#include "ProcessFacts.h"

#include <unistd.h>

namespace kesactl {

bool mayBeHidden(pid_t provider, bool isPolicyThere)
{
    const ProcessFacts process(provider);
    return ::geteuid() != 0 && process.isThere && process.uid != ::geteuid() && (process.uid != 0 || isPolicyThere);
}

} // namespace kesactl
