#include "descriptors.h"

#include "Failure.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>

namespace kesactl {
namespace {

constexpr const char* ADVICE = "let it have more (ulimit -n, or LimitNOFILE= of its unit), then try again";

} // namespace

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
                      ADVICE};
    }
    limit.rlim_cur = limit.rlim_max;
    static_cast<void>(::setrlimit(RLIMIT_NOFILE, &limit));
}

std::size_t countAskableAtOnce()
{
    constexpr int EACH = 5;   // two connections, the watches of their peers, and one that is open for a moment only
    constexpr int LOOPS = 10; // what asks has two of them, with what they look at
    constexpr rlim_t MOST = 4096;
    rlimit limit{};
    static_cast<void>(::getrlimit(RLIMIT_NOFILE, &limit));
    const auto end = static_cast<int>(std::min(limit.rlim_cur, MOST));
    int left = 0;
    for (int descriptor = 0; descriptor < end; ++descriptor) {
        left += ::fcntl(descriptor, F_GETFD) == -1 ? 1 : 0;
    }
    if (left < LOOPS + EACH) {
        throw Failure{ExitCode::eFAILED,
                      fmt::format("this process may have {} descriptors only, of which {} are open, and needs {} more",
                                  limit.rlim_cur, end - left, LOOPS + EACH),
                      0, ADVICE};
    }
    return static_cast<std::size_t>((left - LOOPS) / EACH);
}

} // namespace kesactl
