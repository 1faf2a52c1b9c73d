#ifndef KESA_COMMADAPTER_BACKEND_SERVER_SERVERCONNECTION_H
#define KESA_COMMADAPTER_BACKEND_SERVER_SERVERCONNECTION_H

#include "backend/connection/Connection.h"
#include "backend/connection/StreamTable.h"
#include "backend/server/ServiceTable.h"

#include <comm/OncePerSecond.h>
#include <kesa/IStreamControl.h>
#include <kesa/RequestContext.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kesa::commadapter {

/// A client's connection to the services of this process. See the head of ServerConnection.cpp.
class ServerConnection final : public Connection {
public:
    ServerConnection(std::shared_ptr<IoLoop> loop, std::shared_ptr<ServiceTable> services, std::string scheme);
    ~ServerConnection() override;

    // Loop only.
    void begin(std::unique_ptr<transport::IStream> stream, const protocol::Hello& own);
    /// Writes what can be written, then ends the connection.
    void end();
    void provided(std::uint32_t target, const std::shared_ptr<ProvidedService>& service);
    /// Ends the requests of `target` and tells the client.
    void withdrawn(std::uint32_t target, const ProvidedService& service);
    /// `looks`: so many more numbers of requests may be looked at to count those that are open.
    ConnectionFacts facts(std::size_t& looks) const;
    // See `IPeer`; in ServerConnection_peer.cpp.
    void proveAlive(comm::TimeNs within, std::function<void(bool isAlive)> answer);
    void whenDrained(std::function<void()> task);
    void disconnect(std::string reason) { cutOff(std::move(reason)); }

    // Any thread; called by the response handlers and stream controls. A `serial` that is not the stream's present one
    // is of a stream that has ended.
    /// True when the value was not accepted.
    bool next(std::uint32_t stream, std::uint64_t serial, const Response& response);
    /// `error` null: completed.
    void finish(std::uint32_t stream, std::uint64_t serial, const Response* error);
    void setPolicy(std::uint32_t stream, std::uint64_t serial, QueuePolicy policy);
    /// See `IPeer`.
    std::string endReason() const;

private:
    struct Target {
        std::string path;
        Interests::iterator interest;
        std::shared_ptr<ProvidedService> service; ///< null while nobody provides the path
        StreamList open;                          ///< with the lock held
    };
    struct Latest {
        std::uint32_t stream;
        Response response;
    };
    struct Stream : StreamEntry {
        std::uint64_t serial = 0;
        Target* target = nullptr;
        bool isPersistent = false;
        bool hasLatest = false;  ///< a value waits at `latest`
        bool isCut = false;      ///< refused a value; the loop is going to end it
        bool isFinished = false; ///< by the service, after that: it hears of no cancel
        QueuePolicy policy = QueuePolicy::eCUT_STREAM;
        std::list<Latest>::iterator latest;                ///< in `m_latest`
        void* handle = IKesaApi::UNDEFINED_REQUEST_HANDLE; ///< the service's
        std::shared_ptr<ProvidedService> service;
    };
    /// Wants to know whether the client lives.
    struct LifeQuestion {
        std::uint64_t number;
        comm::TimeNs within;
        comm::TimeNs begun; ///< when `within` began, the last time
        std::function<void(bool isAlive)> answer;
        bool isAsked; ///< the ping under way is its question
    };

    Stream* find(std::uint32_t stream, std::uint64_t serial);
    bool isTooMuch(std::uint32_t number, const Stream& stream, std::size_t size);
    bool isRefused(std::uint32_t number, Stream& stream, std::size_t size);
    Response tooSlow(const Stream& stream, std::size_t size);
    void refuseValue(std::uint32_t number, Stream& stream, protocol::Sent why);
    void postCut(std::uint32_t number, Stream& stream, Response error);
    void cut(std::uint32_t number, std::uint64_t serial, const Response& error);
    void queueLatest(std::uint32_t number, Stream& stream);
    void release(std::uint32_t number);
    void serve(std::uint32_t number, std::uint64_t serial, const std::shared_ptr<ProvidedService>& service,
               const Request& request);
    void cancelAtService(std::uint32_t number, const Response& error);
    void cancelAll(Target& target, const char* text);
    // ServerConnection_peer.cpp
    void askNext();
    void awaitSign(const LifeQuestion& question);
    std::vector<LifeQuestion>::iterator findLifeQuestion(std::uint64_t number);
    void judge(std::uint64_t question, bool hasSlept);
    void postDrained();
    void runDrained();

    void onClosed(const std::string& reason) override;
    bool isAnswerOwed(comm::TimeNs now, bool& isLate) override;
    void onQueueEmpty() override;
    void onSign(bool isPong) override;
    std::string peerName() const override;
    void onHello(const protocol::Hello& peer) override;
    void onAttach(std::uint32_t target, std::string path) override;
    void onDetach(std::uint32_t target) override;
    void onRequest(std::uint32_t stream, std::uint32_t target, Request request, bool isPersistent) override;
    void onCancel(std::uint32_t stream) override;

    const std::shared_ptr<ServiceTable> m_services;
    const std::string m_scheme;

    // With the lock held.
    StreamTable<Stream> m_streams;
    std::uint64_t m_lastSerial = 0;
    std::list<Latest> m_latest;                  ///< in order of arrival; one for each stream at most
    std::deque<std::function<void()>> m_drained; ///< what waits for the queue to be empty
    bool m_isDrainedPosted = false;
    std::size_t m_cuts = 0; ///< streams whose client was too slow
    comm::OncePerSecond m_cutTraces;
    std::string m_endReason;

    // Loop only.
    std::unordered_map<std::uint32_t, Target> m_targets; ///< a target outlives its open streams
    RequestContext m_context;
    std::vector<LifeQuestion> m_lifeQuestions; ///< who came after a ping had gone out waits for the next one
    std::uint64_t m_lastLifeQuestion = 0;
    comm::TimeNs m_openedAt = 0;
};

} // namespace kesa::commadapter

#endif
