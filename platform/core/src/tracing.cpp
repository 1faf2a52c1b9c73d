#include <kesa/tracing.h>
#include <obr/Random.h>

#include <cerrno>
#include <fmt/format.h>
#include <unistd.h>

namespace kesa::tracing {

const std::string& getTraceClientId()
{
    // Of one length, whatever the process's number: requests carry it, and a simulated run hangs on their size.
    static const std::string& id = *new std::string(fmt::format("{}-{:07}-{:08x}", program_invocation_short_name,
                                                                getpid(), obr::Random::current().next() & 0xFFFFFFFF));
    return id;
}

namespace {
// Made when the library is loaded: a test's seeded random source never gives a number for it, so that a run is the
// same whether it is the first of its process or not.
[[maybe_unused]] const std::string& madeAtLoad = getTraceClientId();
} // namespace

} // namespace kesa::tracing
