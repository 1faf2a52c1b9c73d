#ifndef KESA_COMMADAPTER_BACKEND_SERVER_SERVEDREQUESTS_H
#define KESA_COMMADAPTER_BACKEND_SERVER_SERVEDREQUESTS_H

#include "backend/connection/ConnectionFacts.h"
#include "backend/connection/StreamTable.h"
#include "backend/server/Interests.h"
#include "protocol/Output.h"

#include <comm/OncePer.h>
#include <kesa/IKesaApi.h>
#include <kesa/IStreamControl.h>
#include <kesa/Request.h>
#include <kesa/Response.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace kesa::commadapter {

class ServerConnection;

/// The open requests of one client, and what its services answer to them. See the head of ServedRequests.cpp.
class ServedRequests {
public:
    explicit ServedRequests(ServerConnection& connection) : m_connection(connection) {}

    // Loop only.
    /// Hands a request that has come to the service of `target`, if the client has one and somebody provides it, and
    /// the client may ask that by now.
    void serve(std::uint32_t stream, Target* target, const Request& request, bool isPersistent, comm::TimeNs came);
    /// The client has cancelled.
    void cancel(std::uint32_t stream);
    /// The client has handled so much of the stream's values.
    void credit(std::uint32_t stream, std::size_t bytes);
    /// Ends all requests of a target's with a 503.
    void cancelAll(StreamList& requests, const char* text);

    /// The connection has ended.
    void end();

    /// Whether a request with that number may come.
    bool isFree(std::uint32_t stream);

    // Any thread; called by the response handlers and stream controls. A `serial` that is not the stream's present one
    // is of a stream that has ended.
    /// True when the value was not accepted.
    bool next(std::uint32_t stream, std::uint64_t serial, const Response& response);
    /// `error` null: completed.
    void finish(std::uint32_t stream, std::uint64_t serial, const Response* error);
    void setPolicy(std::uint32_t stream, std::uint64_t serial, QueuePolicy policy);

    // With the connection's lock held.
    /// The queue is empty: queues the values that wait in place of others, but for those of streams that have no
    /// credit.
    void queueAllLatest()
    {
        while (!m_latest.empty()) {
            const std::uint32_t number = m_latest.front().stream;
            queueLatest(number, *m_streams.find(number));
        }
    }
    void addFacts(ConnectionFacts& facts) const;

private:
    struct Latest {
        std::uint32_t stream;
        Response response;
    };
    struct Stream : StreamEntry {
        std::uint64_t serial = 0;
        StreamList* sameTarget = nullptr;
        bool isPersistent = false;
        bool hasLatest = false;    ///< a value waits at `latest`
        bool isCreditless = false; ///< in `m_creditless`, else in `m_latest`
        bool isCut = false;        ///< refused a value; the loop is going to end it
        bool isFinished = false;   ///< by the service, after that: it hears of no cancel
        bool hasValue = false;     ///< of a call: it was given one
        QueuePolicy policy = QueuePolicy::eCUT_STREAM;
        std::list<Latest>::iterator latest;
        void* handle = IKesaApi::UNDEFINED_REQUEST_HANDLE; ///< the service's
        std::shared_ptr<ProvidedService> service;
    };

    void callService(std::uint32_t number, std::uint64_t serial, const std::shared_ptr<ProvidedService>& service,
                     const Request& request, comm::TimeNs came);
    /// What becomes of values that have no credit.
    enum class Waiting { eDROPPED, eSENT };
    void cancelAtService(std::uint32_t number, const Response& error, Waiting waiting);
    void cut(std::uint32_t number, std::uint64_t serial, const Response& error);
    // With the connection's lock held.
    Stream* find(std::uint32_t number, std::uint64_t serial);
    bool isTooMuch(std::uint32_t number, Stream& stream, std::size_t size);
    bool isRefused(std::uint32_t number, Stream& stream, std::size_t size);
    Response tooSlow(const Stream& stream, std::size_t size);
    void refuseValue(std::uint32_t number, Stream& stream, protocol::Sent why);
    void postCut(std::uint32_t number, Stream& stream, Response error);
    void keepLatest(std::uint32_t number, Stream& stream, const Response& response);
    void dropLatest(Stream& stream);
    void queueLatest(std::uint32_t number, Stream& stream);
    void release(std::uint32_t number);
    // The same, loop only.
    std::string whyNoPart();
    void count(std::size_t parts);

    /// Of each open request: what leads its answers back here, and what its service keeps of it at least.
    static constexpr std::size_t REQUEST_BYTES = 256;
    /// An account that is looked up for each request would cost as much as the rest, so the requests of a part are
    /// counted as if all were open.
    static constexpr std::size_t PART_BYTES =
        sizeof(StreamTable<Stream>::Part) + REQUEST_BYTES * StreamTable<Stream>::PART;

    ServerConnection& m_connection;
    // With the connection's lock held.
    StreamTable<Stream> m_streams;
    std::uint64_t m_lastSerial = 0;
    std::size_t m_counted = 0; ///< parts, at the user's account
    bool m_isCountDue = false; ///< for some are gone
    /// The request that its service is just given, on the loop; 0 once it has ended. Written with the lock held, read
    /// by the loop without.
    std::atomic<std::uint64_t> m_calledSerial{0};
    // In order of arrival; one for each stream at most.
    std::list<Latest> m_latest;     ///< until the queue is empty
    std::list<Latest> m_creditless; ///< until none of the stream's values waits for credit
    std::size_t m_cuts = 0;         ///< streams whose client was too slow
    comm::OncePer m_cutTraces{comm::SECOND};
};

} // namespace kesa::commadapter

#endif
