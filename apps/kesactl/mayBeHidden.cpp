#include "mayBeHidden.h"

#include "ProcessFacts.h"

#include <unistd.h>

namespace kesactl {

bool mayBeHidden(pid_t provider)
{
    const ProcessFacts process(provider);
    return ::geteuid() != 0 && process.isThere && process.uid != 0 && process.uid != ::geteuid();
}

} // namespace kesactl
