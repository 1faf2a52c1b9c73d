#ifndef KESA_COMMADAPTER_BACKEND_CLIENT_CONNECTOR_H
#define KESA_COMMADAPTER_BACKEND_CLIENT_CONNECTOR_H

#include "backend/connection/Destination.h"
#include "backend/connection/IoLoop.h"
#include "transport/ITransport.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace kesa::commadapter {

/// Gets a stream to an endpoint, again and again, until it is told to stop. A missing endpoint is watched for; after
/// any other failure the pauses grow, and after a connection that did not last. Every failure is the endpoint's reason,
/// traced when it changes; that nobody is there, when it is not plain from what was traced before. Loop only.
class Connector : public std::enable_shared_from_this<Connector> {
public:
    using Connected = std::function<void(std::unique_ptr<transport::IStream>)>;

    Connector(std::shared_ptr<IoLoop> loop, Destination destination, OpenLocal openLocal);

    /// Calls `connected`, on the loop, each time there is a stream; for a local endpoint perhaps inside this call.
    void start(Connected connected);
    void stop();
    /// The stream that was handed over has ended: the next one is wanted. `hasHello`: the peer had said it.
    void lost(const std::string& reason, bool hasHello);
    /// The stream that was handed over has proved useful: once it has lasted as well, the pauses begin anew, and so
    /// does the tracing of reasons.
    void useful();

    const Destination& destination() const noexcept { return m_destination; }
    /// Why there was no connection the last time; empty while there is a useful one. Any thread.
    std::string lastReason() const;
    /// The same in words for who does not know the protocol.
    std::string explainedReason() const;

private:
    enum class State { eSTOPPED, eCONNECTING, eWAITING, eCONNECTED };

    void attempt();
    void attempted(transport::ITransport::Connected result);
    void watch();
    void missing();
    void appeared();
    void pause(comm::TimeNs duration);
    comm::TimeNs nextPause();
    void endWaiting();
    void note(const std::string& reason, int severity);
    void setLastReason(const std::string& reason, bool hadHello = true);

    const std::shared_ptr<IoLoop> m_loop;
    const Destination m_destination;
    const OpenLocal m_openLocal;
    Connected m_connected;
    State m_state = State::eSTOPPED;
    std::uint64_t m_round = 0;  ///< of attempts; answers of earlier rounds are dropped
    bool m_hasAppeared = false; ///< while an attempt was under way
    comm::Reactor::Id m_watch = 0;
    comm::Reactor::Id m_timer = 0;
    comm::TimeNs m_pause = comm::MILLISECOND;
    bool m_isLocal = false;  ///< the last attempt's stream is to this very process
    bool m_isUseful = false; ///< the stream that was handed over
    comm::TimeNs m_connectedSince = 0;
    std::string m_tracedReason;
    bool m_isAbsenceTraced = false; ///< and that it is over has not been
    mutable std::mutex m_mutex;     ///< for the reasons of errors, which any thread asks for
    std::string m_lastReason;       ///< this and the next under the mutex; the rest is the loop's
    bool m_hadHello = true;         ///< else that ended a connection before the peer's hello
};

} // namespace kesa::commadapter

#endif
