// A connection of its own, which says hello, asks for the path and sends a ping, all at once. What is provided is
// attached before the pong comes: so a pong alone says that the path is not.

#include "backend/Locators.h"
#include "backend/connection/Connection.h"
#include "backend/connection/Waiter.h"
#include "backend/readCommSettings.h"
#include "transport/Authority.h"
#include "transport/IpcTransport.h"

#include <kesa/Path.h>
#include <kesa/commadapter/whyUnreachable.h>

#include <functional>
#include <utility>

namespace kesa::commadapter {

namespace {

using Cause = Unreachable::Cause;

class Probe final : public Connection {
public:
    Probe(std::shared_ptr<IoLoop> loop, Place place, std::function<void(Unreachable)> done)
        : Connection(std::move(loop), protocol::Role::eCLIENT), m_place(std::move(place)), m_done(std::move(done))
    {}

    void begin(std::unique_ptr<transport::IStream> stream, comm::TimeNs within)
    {
        m_pid = stream->peer().pid;
        {
            const Lock lock(m_lock);
            protocol::Hello own;
            own.process = "probe";
            own.instance = obr::UUID::generate();
            open(std::move(stream), own);
            static_cast<void>(machine().output.attach(1, m_place.path));
            machine().output.ping();
        }
        Connection::begin();
        loop().startTimer(comm::now() + within, [self = std::static_pointer_cast<Probe>(shared_from_this())] {
            self->finish(Cause::eSILENT, self->m_hasHello ? "it says hello, and then nothing"
                                                          : "it can be connected to, and says nothing");
        });
    }

private:
    void finish(Cause cause, std::string reason)
    {
        if (const auto done = std::exchange(m_done, nullptr)) {
            lose("probed");
            done({cause, std::move(reason), m_pid});
        }
    }

    void onHello(const protocol::Hello& peer) override
    {
        m_hasHello = true;
        if (std::string other = m_place.destination.complaintAbout(peer.process, m_pid); !other.empty()) {
            finish(Cause::eNOT_CONNECTED, std::move(other));
        }
    }
    void onAttached(std::uint32_t) override { finish(Cause::eNONE, {}); }
    void onSign(bool isPong) override
    {
        if (isPong) {
            finish(Cause::eNOT_PROVIDED, "it does not provide \"" + m_place.path + '"');
        }
    }
    void onClosed(const std::string& reason) override
    {
        const bool isOtherVersion = reason.rfind(protocol::NO_COMMON_VERSION, 0) == 0;
        finish(isOtherVersion ? Cause::eOTHER_VERSION : Cause::eGARBAGE, reason);
    }
    bool isAnswerOwed(comm::TimeNs, bool&) override { return false; }
    std::string peerName() const override { return "probed process"; }

    const Place m_place;
    std::function<void(Unreachable)> m_done; ///< null once it is known
    std::int64_t m_pid = -1;
    bool m_hasHello = false;
};

/// Of a locator that was not understood.
const char* whyNowhere(const url& locator)
{
    if (locator.isAbsolute() && locator.scheme() == "ipc" && !transport::parseProcessAuthority(locator, "ipc")) {
        return "names no process; write one such as \"ipc://process/path\"";
    }
    if (locator.isAbsolute() && (locator.hasQueryOrFragment() || !Path::isCanonical(locator.path()))) {
        return "leads nowhere: what follows the process is no path of a service";
    }
    return "is of a scheme or of a run directory that is not known here";
}

Cause causeOf(transport::ITransport::Failure failure)
{
    using Failure = transport::ITransport::Failure;
    switch (failure) {
    case Failure::eMISSING:
    case Failure::eSILENT: // the socket of a dead process
        return Cause::eMISSING;
    case Failure::eBUSY:
        return Cause::eSILENT;
    case Failure::eFORBIDDEN:
        return Cause::eFORBIDDEN;
    default:
        return Cause::eNOT_CONNECTED;
    }
}

/// One attempt, on the loop.
void attempt(const std::shared_ptr<IoLoop>& loop, const Place& place, comm::TimeNs within,
             const std::function<void(Unreachable)>& done)
{
    place.destination.transport->connect(place.destination.endpoint, [=](transport::ITransport::Connected connected) {
        const IoLoop::Turn turn(*loop);
        if (connected.stream) {
            std::make_shared<Probe>(loop, place, done)->begin(std::move(connected.stream), within);
        } else {
            done({causeOf(connected.failure), std::move(connected.reason)});
        }
    });
}

} // namespace

Unreachable whyUnreachable(const url& locator, comm::TimeNs within)
{
    Unreachable result;
    whyUnreachable(std::vector<url>{locator}, within,
                   [&result](std::size_t, Unreachable found) { result = std::move(found); });
    return result;
}

void whyUnreachable(const std::vector<url>& locators, comm::TimeNs within,
                    const std::function<void(std::size_t, Unreachable)>& found)
{
    const CommSettings settings = readCommSettings();
    const auto loop = std::make_shared<IoLoop>(settings);
    const std::shared_ptr<transport::ITransport> transport = transport::makeIpcTransport(
        transport::IpcSettings{settings.runDir, settings.socketMode, settings.socketGroup}, loop->reactor());
    const Locators places(settings.routes, {transport});
    Waiter waiter;
    std::size_t open = locators.size() + 1; // the loop's own, with one for the beginning
    const auto end = [&waiter, &open] {
        if (--open == 0) {
            const std::lock_guard lock(waiter.lock);
            waiter.isDone = true;
            waiter.condition.notifyAll();
        }
    };
    loop->post([&] {
        for (std::size_t number = 0; number < locators.size(); ++number) {
            const auto done = [&found, &end, number](Unreachable result) {
                found(number, std::move(result));
                end();
            };
            if (const auto place = places.find(locators[number])) {
                attempt(loop, *place, within, done);
            } else {
                done({Cause::eNOWHERE, "\"" + locators[number].toString() + "\" " + whyNowhere(locators[number])});
            }
        }
        end();
    });
    {
        std::unique_lock lock(waiter.lock);
        comm::waitFor(waiter.condition, lock, [&waiter] { return waiter.isDone; });
    }
    loop->runAndWait("whyUnreachable", [&transport] { transport->close(); });
    loop->reactor()->stop();
}

} // namespace kesa::commadapter
