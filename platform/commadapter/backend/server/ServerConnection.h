#ifndef KESA_COMMADAPTER_BACKEND_SERVER_SERVERCONNECTION_H
#define KESA_COMMADAPTER_BACKEND_SERVER_SERVERCONNECTION_H

#include "backend/connection/Connection.h"
#include "backend/server/DrainedTasks.h"
#include "backend/server/HeldRequests.h"
#include "backend/server/Interests.h"
#include "backend/server/Liveness.h"
#include "backend/server/ServedRequests.h"
#include "backend/server/ServiceTable.h"

#include <kesa/RequestContext.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace kesa::commadapter {

/// A client's connection to the services of this process. Each of its parts keeps one promise to that client, or about
/// it; this leads what comes to the one that it is for. The parts live as long as the connection, and use its lock.
class ServerConnection final : public Connection {
public:
    /// `transport`: over which the client has come; expired for this process itself.
    ServerConnection(std::shared_ptr<IoLoop> loop, std::shared_ptr<ServiceTable> services, std::string scheme,
                     std::weak_ptr<const transport::ITransport> transport);
    ~ServerConnection() override;

    // Loop only.
    void begin(std::unique_ptr<transport::IStream> stream, const protocol::Hello& own);
    /// Writes what can be written, then ends the connection.
    void end();
    ConnectionFacts facts() const;
    Liveness& liveness() noexcept { return m_liveness; }
    /// See `IPeer`. Asked of the kernel once.
    IPeer::Name proveName();
    DrainedTasks& drainedTasks() noexcept { return m_drainedTasks; }
    using Connection::cutOff;
    /// It asks for no path.
    bool isIdle() const noexcept { return m_interests.isEmpty(); }
    /// The client is this process.
    bool isLocal() const noexcept { return m_scheme == "local"; }
    /// Who it is, once it has said hello.
    const RequestContext& client() const noexcept { return m_context; }
    /// Whom the kernel says it is of.
    const transport::PeerIdentity& identity() const noexcept { return m_identity; }

    /// See `IPeer`. Any thread.
    std::string endReason() const;

private:
    // What the parts use beside what each connection has.
    friend ServedRequests;
    friend DrainedTasks;
    friend HeldRequests;
    friend Interests;
    friend Liveness;
    Lock lock() const { return Lock(m_lock); }
    /// While open; lock held.
    protocol::Output& output() noexcept { return machine().output; }
    /// Loop only, while open.
    comm::TimeNs lastReceived() noexcept { return machine().input.lastReceived(); }
    /// What to answer to a request that the client may not make; none: it may.
    std::optional<Response> refusal(Target& target, const Request& request)
    {
        Doorkeeper& doorkeeper = m_services->doorkeeper();
        return !doorkeeper.hasTable() || isLocal() ? std::nullopt : doorkeeper.refusal(target, m_context, request);
    }
    /// A part that keeps the connection.
    template <class Part>
    std::shared_ptr<Part> share(Part& part)
    {
        return {shared_from_this(), &part};
    }

    // For the requests that are on their way. Loop only.
    void serve(std::uint32_t stream, std::uint32_t target, const Request& request, bool isPersistent,
               comm::TimeNs came);
    void sayCancelled(std::uint32_t stream);
    void giveRequestCredit(std::size_t bytes);
    /// Held, or over.
    bool isServedNoMore() const noexcept { return isHeld() || isLost(); }

    std::string peerName() const override;
    void onClosed(const std::string& reason) override;
    bool isAnswerOwed(comm::TimeNs now, bool& isLate) override;
    void onQueueEmpty() override;
    void onSign(bool isPong) override;
    void onHello(const protocol::Hello& peer) override;
    Room onLarge(std::uint32_t stream, std::size_t bytes) override;
    void onAttach(std::uint32_t target, std::string path) override;
    void onDetach(std::uint32_t target) override;
    void onRequest(std::uint32_t stream, std::uint32_t target, Request request, bool isPersistent,
                   std::size_t cost) override;
    std::size_t heldBytes() const override { return m_held.bytes(); }
    void serveHeld(comm::TimeNs until) override;
    void onCancel(std::uint32_t stream) override;
    void onCredit(std::uint32_t stream, std::uint32_t bytes) override;

    const std::shared_ptr<ServiceTable> m_services;
    const std::string m_scheme;
    const std::weak_ptr<const transport::ITransport> m_transport;
    Interests m_interests;
    HeldRequests m_held;
    ServedRequests m_served;
    Liveness m_liveness;
    DrainedTasks m_drainedTasks;

    std::string m_endReason; ///< with the lock held
    // Loop only.
    transport::PeerIdentity m_identity; ///< as it was accepted
    RequestContext m_context;           ///< who the client is, for the service that is called
    comm::TimeNs m_openedAt = 0;
    std::optional<IPeer::Name> m_name;
};

} // namespace kesa::commadapter

#endif
