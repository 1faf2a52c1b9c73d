#include "waiting.h"

#include <comm/Scheduler.h>
#include <comm/onAnyLoop.h>

#include <algorithm>
#include <fmt/format.h>

namespace kesa::detail {

std::string refusalToWait(const char* operation, const char* instead)
{
    const comm::LoopInfo* const loop = comm::currentLoop();
    // An active object of the application's own may wait.
    if (loop == nullptr || !(loop->isReactor() || loop->name.substr(0, loop->name.find('.')) == "KesaRuntimeImpl")) {
        return {};
    }
    return fmt::format("{} can not wait on '{}', which delivers answers; {}, or move the caller to a loop of its own "
                       "with kesa::on",
                       operation, loop->name, instead);
}

comm::TimeNs deadlineIn(std::chrono::nanoseconds timeout)
{
    const comm::TimeNs now = comm::now();
    const comm::TimeNs left = std::max<comm::TimeNs>(timeout.count(), 0);
    return left < comm::NEVER - now ? now + left : comm::NEVER;
}

} // namespace kesa::detail
