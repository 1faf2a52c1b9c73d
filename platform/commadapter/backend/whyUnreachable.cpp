#include "backend/Locators.h"
#include "backend/readCommSettings.h"
#include "transport/IpcTransport.h"

#include <comm/Condition.h>
#include <comm/Scheduler.h>
#include <kesa/Path.h>
#include <kesa/commadapter/whyUnreachable.h>

#include <mutex>

namespace kesa::commadapter {

namespace {

/// Of a locator that was not understood.
const char* whyNowhere(const url& locator)
{
    const bool namesNoService =
        locator.isAbsolute() && (locator.hasQueryOrFragment() || !Path::isCanonical(locator.path()));
    return namesNoService ? "leads nowhere: what follows the process is no path of a service"
                          : "is of a scheme or of a run directory that is not known here";
}

} // namespace

Unreachable whyUnreachable(const url& locator)
{
    std::vector<std::string> complaints; // the backend's to tell
    const CommSettings settings = readCommSettings(complaints);
    const auto loop = comm::Scheduler::current().makeReactor("kesa-io");
    const std::shared_ptr<transport::ITransport> transport = transport::makeIpcTransport(
        transport::IpcSettings{settings.runDir, settings.socketMode, settings.socketGroup}, loop);
    const auto place = Locators(settings.routes, {transport}).find(locator);
    if (!place) {
        loop->stop();
        return {"\"" + locator.toString() + "\" " + whyNowhere(locator)};
    }
    std::mutex mutex;
    comm::Condition changed;
    bool isDone = false;
    Unreachable result;
    loop->post([&] {
        transport->connect(place->destination.endpoint, [&](transport::ITransport::Connected connected) {
            if (connected.stream) {
                connected.stream->close();
            }
            transport->close();
            const std::lock_guard lock(mutex);
            result.reason = std::move(connected.reason);
            result.isForbidden = connected.failure == transport::ITransport::Failure::eFORBIDDEN;
            isDone = true;
            changed.notifyAll();
        });
    });
    {
        std::unique_lock lock(mutex);
        comm::waitFor(changed, lock, [&] { return isDone; });
    }
    loop->stop();
    return result;
}

} // namespace kesa::commadapter
