#ifndef KESA_COMMADAPTER_BACKEND_CLIENT_CLIENTCONNECTION_H
#define KESA_COMMADAPTER_BACKEND_CLIENT_CLIENTCONNECTION_H

#include "backend/client/CallUnderWay.h"
#include "backend/client/Connector.h"
#include "backend/client/Deadlines.h"
#include "backend/connection/Connection.h"
#include "backend/connection/StreamTable.h"

#include <kesa/IClientConnectionListener.h>
#include <kesa/IKesaApi.h>
#include <kesa/IResponseHandler.h>
#include <kesa/Receipt.h>
#include <kesa/Request.h>
#include <kesa/Response.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace kesa::commadapter {

/// One client object as its connection sees it: its state, and its open requests in the order they were issued.
/// Guarded by the connection's lock, but for what is marked.
struct ClientState {
    ClientState(std::string servicePath, IClientConnectionListener* connectionListener)
        : path(std::move(servicePath)), listener(connectionListener)
    {}
    const std::string path;
    const comm::TimeNs begun = comm::now();
    IClientConnectionListener* listener; ///< null: released
    bool isAttached = false;             ///< connected: requests may be sent
    std::uint32_t target = 0;            ///< its number on the present connection; changed on the loop only
    bool isStarted = false;
    StreamList open;
};

/// All that this process has with one endpoint as a client: the client objects, their requests, and the connection,
/// which may come and go. Shared by the client objects, it outlives the backend with them. See the head of
/// ClientConnection.cpp.
class ClientConnection final : public Connection, private Receipt::IIssuer {
public:
    using Handler = std::unique_ptr<IResponseHandler<Response>>;
    /// Called on the loop when a client object is done with the connection.
    using Unused = std::function<void(ClientConnection&, bool serviceRemoved)>;

    ClientConnection(const std::shared_ptr<IoLoop>& loop, Destination destination, MakeHello makeHello,
                     OpenLocal openLocal, Unused unused);
    ~ClientConnection() override;

    // Any thread.
    void* request(ClientState& client, const Request& request, Handler&& handler);
    void cancel(const ClientState& client, void* handle);
    void start(const std::shared_ptr<ClientState>& client);
    /// Returns when no call to the listener runs or comes any more.
    void release(const std::shared_ptr<ClientState>& client, bool serviceRemoved);
    /// As `KesaClientApi::obstacle`.
    std::string obstacle(const ClientState& client) const;

    // Loop only.
    ConnectionFacts facts() const;
    /// Nobody uses it, for now or for good.
    void disconnect();
    /// Ends everything, calling nobody but the handlers of open requests.
    void stop();

    /// After the loop's end, any thread: drops what a loop that was killed has left.
    void abandon();

    const Destination& destination() const noexcept { return m_connector->destination(); }

private:
    static constexpr const char* SHUTTING_DOWN = "shutting down";

    enum class Limited : std::uint8_t {
        eNOT,
        eUNTIL_VALUE, ///< until the first value: of a persistent stream, or the only one
        eUNTIL_END,
    };
    struct Stream : StreamEntry {
        Handler handler; ///< null while it is given a value
        ClientState* client = nullptr;
        std::uint64_t handle = 0;
        std::uint64_t queueEnd = 0; ///< right after it was queued: see `Output::isUnsent`
        comm::TimeNs issued = 0;    ///< of a request for a single answer, or with a time limit
        Limited limited = Limited::eNOT;
        bool isOpen = false; ///< else cancelled: the number stays taken until the server ends the stream
        bool isSingle = false;
        bool isPersistent = false;
        // Of values of a persistent stream, in bytes.
        std::size_t taken = 0;   ///< and not given back to the server
        std::size_t handled = 0; ///< among them
    };
    /// A request that could not be sent, until the loop tells its handler.
    struct Failure {
        std::uint64_t handle;
        Handler handler; ///< null: cancelled meanwhile
        unsigned short status;
        std::string text;
        std::string path; ///< of the service
    };

    // ClientConnection_requests.cpp. Any thread; with the lock held where one is passed.
    bool isConnected(const ClientState& client) const noexcept { return client.isAttached && isOpen(); }
    std::string whyNot(const ClientState& client) const;
    bool isRefused(std::size_t size, bool isPersistent);
    void noNumberFree();
    void* send(Lock& lock, ClientState& client, const Request& request, Handler&& handler);
    void* fail(Lock& lock, const ClientState& client, Handler&& handler, unsigned short status, std::string text);
    void tellLater();
    Handler takeFailed(std::uint64_t handle);
    void unlink(std::uint32_t number, Stream& stream);
    void unlimit(Stream& stream) noexcept;
    void cancelStream(std::uint32_t stream);
    Stream* findOpen(std::uint64_t handle);
    std::weak_ptr<Receipt::IIssuer> issuer();
    void handled(std::uint64_t request, std::size_t bytes) noexcept override;
    static std::uint64_t nextHandle(std::uint32_t stream) noexcept;
    static std::uint32_t streamOf(std::uint64_t handle) noexcept;
    // ClientConnection_limits.cpp
    void limit(Stream& stream, comm::TimeNs deadline, Limited limited);
    bool isLimited(std::uint64_t handle);

    // Loop only.
    void connected(std::unique_ptr<transport::IStream> stream);
    void attach(const std::shared_ptr<ClientState>& client);
    void retire(const std::shared_ptr<ClientState>& client, bool serviceRemoved);
    void tellFailed(Lock& lock, std::size_t atMost);
    void endStreams(Lock& lock, ClientState& client, const Response& error);
    template <class Call>
    void callOut(const std::string& path, Call&& call);
    void endHere(Lock& lock, std::uint32_t stream, const Response& error);
    void endStream(std::uint32_t stream, const Response* error);
    bool breaksOrder(Lock& lock, std::uint32_t number, const Stream& stream);
    void setConnected(Lock& lock, ClientState& client);
    void setDisconnected(Lock& lock, ClientState& client, const Response& error);
    void tellListener(Lock& lock, ClientState& client, void (IClientConnectionListener::*call)());
    template <class Call>
    void run(Lock& lock, std::uint64_t handle, const std::string& path, Call&& call);
    std::shared_ptr<ClientState> clientOf(std::uint32_t target) const;
    // ClientConnection_limits.cpp
    void setTimer();
    void expire();
    bool looks(Lock& lock, comm::TimeNs now);
    bool looksAgain();

    void onClosed(const std::string& reason) override;
    bool isAnswerOwed(comm::TimeNs now, bool& isLate) override;
    std::string peerName() const override;
    void onHello(const protocol::Hello& peer) override;
    Room onLarge(std::uint32_t stream, std::size_t bytes) override;
    void onRequestCredit(std::uint32_t bytes) override;
    void onAttached(std::uint32_t target) override;
    void onDetached(std::uint32_t target) override;
    void onNext(std::uint32_t stream, Response response, std::size_t bytes) override;
    void onError(std::uint32_t stream, Response error) override;
    void onCompleted(std::uint32_t stream) override;

    const MakeHello m_makeHello;
    const Unused m_unused;
    const std::shared_ptr<Connector> m_connector;

    // With the lock held.
    StreamTable<Stream> m_streams;
    std::deque<Failure> m_failures; ///< handles ascend; the last one is not cancelled
    bool m_isTelling = false;       ///< an event for all of them is in the loop's queue
    std::size_t m_openSingles = 0;
    std::size_t m_endsOwed = 0;                 ///< of cancelled streams
    comm::TimeNs m_noneFreeSince = comm::NEVER; ///< a request found no number, and no end of a cancelled one has come
    Deadlines m_deadlines{[this](std::uint64_t handle) { return isLimited(handle); }};
    comm::TimeNs m_timerDue = comm::NEVER; ///< when `m_timer` runs, or is about to be set for
    bool m_isStopped = false;
    transport::PeerIdentity m_peer;            ///< of the present connection, or of the last one
    comm::TimeNs m_openedAt = 0;               ///< the present connection, or the last one
    bool m_isGreeted = false;                  ///< the server has said hello
    CallUnderWay<std::uint64_t> m_handlerCall; ///< by handle
    CallUnderWay<const ClientState*> m_listenerCall;
    std::atomic<bool> m_isLoopGone{false}; ///< it has dropped an event

    // Loop only.
    std::vector<std::shared_ptr<ClientState>> m_clients; ///< started and not retired
    std::unordered_map<std::uint32_t, std::shared_ptr<ClientState>> m_targets;
    std::uint32_t m_lastTarget = 0;
    comm::Reactor::Id m_timer = 0;
    /// For answers that came before a time limit ran out, or while the loop stood still.
    struct Look {
        comm::TimeNs begun = 0; ///< what had come by then is being read, or has been
        comm::TimeNs last = 0;  ///< when it was gone on with; 0: there is none
        comm::TimeNs took = 0;
        bool isRead = false;
        bool stoodStill = false;
        bool isWaiting = false; ///< until the peer is quiet
    };
    Look m_look;
};

} // namespace kesa::commadapter

#endif
