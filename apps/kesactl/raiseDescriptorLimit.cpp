#include "raiseDescriptorLimit.h"

#include "Failure.h"

#include <fmt/format.h>
#include <sys/resource.h>

namespace kesactl {

void raiseDescriptorLimit()
{
    constexpr rlim_t NEEDED = 32;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return; // what lacks one says so itself
    }
    if (limit.rlim_max < NEEDED) {
        throw Failure{ExitCode::eFAILED,
                      fmt::format("this process may have {} descriptors only, and needs {}", limit.rlim_max, NEEDED), 0,
                      "let it have more (ulimit -n, or LimitNOFILE= of its unit), then try again"};
    }
    limit.rlim_cur = limit.rlim_max;
    static_cast<void>(::setrlimit(RLIMIT_NOFILE, &limit));
}

} // namespace kesactl
