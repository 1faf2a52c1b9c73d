// A request is handed to its service on the loop, with a response handler that leads back here by stream and serial:
// the service may keep it as long as it likes and answer from any thread, one at a time. Whatever ends a stream on this
// side (the service, the client's cancel, a withdrawal, a cut, the connection) frees its entry under the lock; what the
// handler says afterwards finds another serial and is not accepted. Where it was not the service that ended it, the
// service's `cancel` is called, on the loop and without the lock.
//
// A stream's number is the client's, and free again for it once this side has said `error` or `completed`, which it
// says for a cancelled one too.
//
// A client that does not keep up with its calls waits: their answers are queued whatever there is, and beyond the bound
// no further request is read, see Connection.cpp. For persistent streams, see `QueuePolicy`. What has to end is ended
// by the loop later, never inside `onNext`; whether a client that is over its bound takes nothing at all is seen by the
// heartbeat.

#include "backend/server/ServerConnection.h"

#include "backend/connection/channel.h"
#include "backend/connection/timeLimit.h"
#include "backend/server/Peer.h"

#include <kesa/IResponseHandler.h>
#include <kesa/headers.h>

#include <fmt/format.h>

#include <utility>

namespace kesa::commadapter {

namespace {

constexpr std::size_t MAX_TARGETS = 65536;

/// What a service answers through.
class ResponseSender final : public IResponseHandler<Response> {
public:
    ResponseSender(std::shared_ptr<ServerConnection> connection, std::uint32_t stream, std::uint64_t serial)
        : m_connection(std::move(connection)), m_stream(stream), m_serial(serial)
    {}
    ~ResponseSender() override
    {
        if (m_connection) {
            const auto error = Response::createErrorResponse(503, "the service dropped the request");
            m_connection->finish(m_stream, m_serial, &error);
        }
    }
    ResponseSender(const ResponseSender&) = delete;
    ResponseSender& operator=(const ResponseSender&) = delete;

    bool onNext(const Response& response) override
    {
        return !m_connection || m_connection->next(m_stream, m_serial, response);
    }
    void onError(const Response& error) override { finish(&error); }
    void onCompleted() override { finish(nullptr); }

private:
    void finish(const Response* error)
    {
        if (const auto connection = std::exchange(m_connection, nullptr)) {
            connection->finish(m_stream, m_serial, error);
        }
    }

    std::shared_ptr<ServerConnection> m_connection; ///< null after the end
    const std::uint32_t m_stream;
    const std::uint64_t m_serial;
};

/// Apart from the response handler, which the service may destroy while it is given the request.
class StreamControl final : public IStreamControl {
public:
    StreamControl(ServerConnection& connection, std::uint32_t stream, std::uint64_t serial)
        : m_connection(connection), m_stream(stream), m_serial(serial)
    {}
    void setQueuePolicy(QueuePolicy policy) override { m_connection.setPolicy(m_stream, m_serial, policy); }

private:
    ServerConnection& m_connection;
    const std::uint32_t m_stream;
    const std::uint64_t m_serial;
};

} // namespace

ServerConnection::ServerConnection(std::shared_ptr<IoLoop> loop, std::shared_ptr<ServiceTable> services,
                                   std::string scheme)
    : Connection(std::move(loop), protocol::Role::eSERVER), m_services(std::move(services)), m_scheme(std::move(scheme))
{}

ServerConnection::~ServerConnection() = default;

void ServerConnection::begin(std::unique_ptr<transport::IStream> stream, const protocol::Hello& own)
{
    {
        const Lock lock(m_lock);
        open(std::move(stream), own);
        m_openedAt = comm::now();
        m_context.realm = own.realm; // who reaches a socket is of its realm
    }
    Connection::begin();
}

void ServerConnection::end()
{
    flush();
    lose("shutting down");
}

ConnectionFacts ServerConnection::facts(std::size_t& looks) const
{
    ConnectionFacts facts;
    facts.isByPeer = true;
    facts.isConnected = m_context.peer != nullptr;
    facts.process = m_context.process;
    const Lock lock(m_lock);
    facts.cutStreams = m_cuts;
    if (isOpen()) {
        addFacts(facts, m_openedAt);
        addOpenRequests(facts, m_streams, looks);
    }
    return facts;
}

std::string ServerConnection::peerName() const
{
    if (m_context.process.empty()) {
        return isOpen() && peer().pid >= 0 ? "process " + std::to_string(peer().pid) : "unknown client";
    }
    return m_context.process + " (process " + std::to_string(m_context.pid) + ")";
}

// ---- answers ------------------------------------------------------------------------------------------------------

ServerConnection::Stream* ServerConnection::find(std::uint32_t number, std::uint64_t serial)
{
    Stream* const stream = m_streams.find(number);
    return isOpen() && stream != nullptr && stream->serial == serial ? stream : nullptr;
}

bool ServerConnection::next(std::uint32_t number, std::uint64_t serial, const Response& response)
{
    const Lock lock(m_lock);
    Stream* const stream = find(number, serial);
    if (stream == nullptr || stream->isCut || isBroken()) {
        return true;
    }
    const std::size_t size = response.getPayload().size();
    if (stream->hasLatest) {
        if (const auto sent = machine().output.tryNext(response); sent != protocol::Sent::eQUEUED) {
            refuseValue(number, *stream, sent);
            return true;
        }
        stream->latest->response = response;
        return false;
    }
    if (isTooMuch(number, *stream, size)) {
        if (stream->policy == QueuePolicy::eKEEP_LATEST) {
            if (const auto sent = machine().output.tryNext(response); sent != protocol::Sent::eQUEUED) {
                refuseValue(number, *stream, sent);
                return true;
            }
            stream->hasLatest = true;
            stream->latest = m_latest.insert(m_latest.end(), {number, response});
            return false;
        }
        if (isRefused(number, *stream, size)) {
            return true;
        }
    }
    const auto sent = machine().output.next(number, response, stream->isPersistent);
    if (sent != protocol::Sent::eQUEUED) {
        refuseValue(number, *stream, sent);
        return true;
    }
    pushOut(Haste::eMAY_GATHER);
    return false;
}

/// Whether the stream's policy decides. Of a call only a value that would wait behind another of the same call is
/// judged, by all that calls have queued here: reading no further bounds how many calls there are, not what each says.
bool ServerConnection::isTooMuch(std::uint32_t number, const Stream& stream, std::size_t size)
{
    if (stream.isPersistent) {
        return isOverBound(size) || isProcessOverBound(size);
    }
    const CommSettings& settings = loop().settings();
    const bool isProcessOver = loop().queued().all > settings.processQueueBytes;
    const std::size_t bound = isProcessOver ? settings.sendQueueBytes : settings.processQueueBytes;
    return machine().output.queuedBytes() > bound + machine().output.persistentBytes() &&
           machine().output.queuedBytes(number) > 0;
}

/// Tells both sides whose it was, how much waits, and what may. One line in a second: who has many streams loses many,
/// and who follows one loses it again and again.
Response ServerConnection::tooSlow(const Stream& stream, std::size_t size)
{
    const CommSettings& settings = loop().settings();
    const bool isOwnBound = stream.isPersistent ? isOverBound(size) : loop().queued().all > settings.processQueueBytes;
    const bool isOfAll = stream.isPersistent && !isOwnBound;
    const std::size_t ofConnection = stream.isPersistent
                                         ? machine().output.persistentBytes()
                                         : machine().output.queuedBytes() - machine().output.persistentBytes();
    const std::string why = fmt::format(
        "the client '{}' takes values more slowly than they come: {} bytes wait for it{}, with the next {} more than "
        "{}",
        peerName(), isOfAll ? loop().queued().persistent : ofConnection, isOfAll ? " and others" : "", size,
        isOwnBound ? fmt::format("the provider's \"comm\", \"send_queue_bytes\" of {}", settings.sendQueueBytes)
                   : fmt::format("the {} that the provider keeps for all", settings.processQueueBytes));
    ++m_cuts;
    if (const auto end = m_cutTraces.pass(comm::now())) {
        KESA_TRACE(CHANNEL, 3, "[answer] '%s': a stream is cut: %s%s", stream.service->path.c_str(), why.c_str(),
                   end->c_str());
    }
    Response error = Response::createErrorResponse(503, "too slow");
    headers::appendReason(error, why);
    return error;
}

/// A value that has no form on the wire: the stream ends, or its client would miss the value without knowing.
void ServerConnection::refuseValue(std::uint32_t number, Stream& stream, protocol::Sent why)
{
    const bool isTooLarge = why == protocol::Sent::eTOO_LARGE;
    KESA_TRACE(CHANNEL, 3, "[answer] '%s': an answer is not sent: it %s", stream.service->path.c_str(),
               machine().output.refusal().c_str());
    postCut(number, stream,
            Response::createErrorResponse(isTooLarge ? 413 : 500, "the answer " + machine().output.refusal()));
}

void ServerConnection::postCut(std::uint32_t number, Stream& stream, Response error)
{
    stream.isCut = true;
    loop().post([self = std::static_pointer_cast<ServerConnection>(shared_from_this()), number, serial = stream.serial,
                 error = std::move(error)] { self->cut(number, serial, error); });
}

/// Over the bound: whether the value is not to be queued. What else follows is left to the loop.
bool ServerConnection::isRefused(std::uint32_t number, Stream& stream, std::size_t size)
{
    if (stream.policy == QueuePolicy::eCUT_STREAM) {
        Response error = tooSlow(stream, size);
        machine().output.dropQueued(number);
        postCut(number, stream, std::move(error));
        return true;
    }
    if (stream.isPersistent && !isProcessOverBound(size)) {
        queueBeyondBound();
        return false;
    }
    stream.isCut = true;
    loop().post(
        [self = std::static_pointer_cast<ServerConnection>(shared_from_this())] { self->cutOff(TAKES_NOTHING); });
    return true;
}

void ServerConnection::cut(std::uint32_t number, std::uint64_t serial, const Response& error)
{
    Lock lock(m_lock);
    if (find(number, serial) != nullptr) {
        lock.unlock();
        cancelAtService(number, error);
    }
}

void ServerConnection::finish(std::uint32_t number, std::uint64_t serial, const Response* error)
{
    const Lock lock(m_lock);
    Stream* const stream = find(number, serial);
    if (stream == nullptr) {
        return;
    }
    if (stream->isCut) { // ends with the loop's word
        stream->isFinished = true;
        return;
    }
    queueLatest(number, *stream);
    if (error != nullptr) {
        machine().output.error(number, *error);
    } else {
        machine().output.completed(number);
    }
    release(number);
    pushOut();
}

void ServerConnection::setPolicy(std::uint32_t number, std::uint64_t serial, QueuePolicy policy)
{
    const Lock lock(m_lock);
    if (Stream* const stream = find(number, serial)) {
        stream->policy = policy;
    }
}

void ServerConnection::onQueueEmpty()
{
    while (!m_latest.empty()) {
        const std::uint32_t number = m_latest.front().stream;
        queueLatest(number, *m_streams.find(number));
    }
    postDrained();
}

/// The value that waits, before the stream's end.
void ServerConnection::queueLatest(std::uint32_t number, Stream& stream)
{
    if (std::exchange(stream.hasLatest, false)) {
        // It was tried before.
        static_cast<void>(machine().output.next(number, stream.latest->response, stream.isPersistent));
        m_latest.erase(stream.latest);
    }
}

void ServerConnection::release(std::uint32_t number)
{
    Stream& stream = *m_streams.find(number);
    if (stream.hasLatest) {
        m_latest.erase(stream.latest);
    }
    m_streams.remove(stream.target->open, number);
    m_streams.release(number);
}

// ---- requests -----------------------------------------------------------------------------------------------------

void ServerConnection::onHello(const protocol::Hello& peer)
{
    const auto& identity = Connection::peer();
    m_context.instance = peer.instance;
    m_context.process = peer.process;
    m_context.transport = m_scheme;
    m_context.pid = identity.pid;
    m_context.uid = identity.uid;
    m_context.gid = identity.gid;
    m_context.subject = identity.subject;
    m_context.peer = std::make_shared<Peer>(loop().shared_from_this(),
                                            std::static_pointer_cast<ServerConnection>(shared_from_this()));
    machine().input.setClientId(peer.process + ":" + std::to_string(identity.pid));
}

void ServerConnection::onAttach(std::uint32_t target, std::string path)
{
    if (m_targets.size() >= MAX_TARGETS) {
        cutOff("too many paths");
        return;
    }
    const auto [entry, isNew] = m_targets.try_emplace(target);
    if (!isNew) {
        cutOff("target " + std::to_string(target) + " is in use");
        return;
    }
    entry->second.interest = m_services->addInterest(*this, target, path);
    entry->second.path = std::move(path);
    if (const auto service = m_services->find(entry->second.path)) {
        provided(target, service);
    }
}

void ServerConnection::onDetach(std::uint32_t target)
{
    const auto found = m_targets.find(target);
    if (found != m_targets.end()) {
        cancelAll(found->second, "cancelled");
        m_services->removeInterest(found->second.path, found->second.interest);
        m_targets.erase(found);
    }
}

void ServerConnection::provided(std::uint32_t target, const std::shared_ptr<ProvidedService>& service)
{
    Target& entry = m_targets.at(target);
    if (entry.service == service) {
        return;
    }
    entry.service = service;
    const Lock lock(m_lock);
    if (isOpen()) {
        machine().output.attached(target);
        pushOut();
    }
}

void ServerConnection::withdrawn(std::uint32_t target, const ProvidedService& service)
{
    const auto found = m_targets.find(target);
    if (found == m_targets.end() || found->second.service.get() != &service) {
        return;
    }
    found->second.service = nullptr;
    cancelAll(found->second, "the service was withdrawn");
    const Lock lock(m_lock);
    if (isOpen()) {
        machine().output.detached(target);
        pushOut();
    }
}

void ServerConnection::cancelAll(Target& target, const char* text)
{
    Lock lock(m_lock);
    while (target.open.first != 0) {
        const std::uint32_t number = target.open.first;
        lock.unlock();
        cancelAtService(number, Response::createErrorResponse(503, text));
        lock.lock();
    }
}

/// Ends a stream and tells its service, unless that has done with it.
void ServerConnection::cancelAtService(std::uint32_t number, const Response& error)
{
    Lock lock(m_lock);
    Stream* const stream = m_streams.find(number);
    if (stream == nullptr) {
        return;
    }
    const auto service = stream->service;
    void* const handle = stream->isFinished ? IKesaApi::UNDEFINED_REQUEST_HANDLE : stream->handle;
    if (isOpen()) {
        queueLatest(number, *stream);
        machine().output.error(number, error);
        release(number);
        pushOut();
    } else {
        release(number);
    }
    lock.unlock();
    if (handle != IKesaApi::UNDEFINED_REQUEST_HANDLE && !service->isWithdrawn) {
        loop().callOut([&] { service->service->cancel(handle); },
                       [&] { return "the cancel of a request of the service '" + service->path + "'"; });
    }
}

void ServerConnection::onCancel(std::uint32_t number)
{
    Lock lock(m_lock);
    if (m_streams.find(number) == nullptr) {
        return; // it has ended meanwhile
    }
    machine().output.dropQueued(number);
    lock.unlock();
    cancelAtService(number, Response::createErrorResponse(503, "cancelled"));
}

void ServerConnection::onRequest(std::uint32_t number, std::uint32_t target, Request request, bool isPersistent)
{
    const auto found = m_targets.find(target);
    const auto service = found == m_targets.end() ? nullptr : found->second.service;
    Lock lock(m_lock);
    if (!isOpen()) {
        return;
    }
    Stream* const stream = m_streams.take(number);
    if (stream == nullptr) {
        lock.unlock();
        cutOff(number > MAX_STREAMS ? "too many open requests" : "request number in use");
        return;
    }
    if (!service) {
        m_streams.release(number);
        machine().output.error(number, Response::createErrorResponse(503, "the service is not provided"));
        pushOut();
        return;
    }
    stream->serial = ++m_lastSerial;
    stream->target = &found->second;
    stream->service = service;
    stream->isPersistent = isPersistent;
    m_streams.append(found->second.open, number);
    const std::uint64_t serial = stream->serial;
    lock.unlock();
    serve(number, serial, service, request);
}

void ServerConnection::serve(std::uint32_t number, std::uint64_t serial,
                             const std::shared_ptr<ProvidedService>& service, const Request& request)
{
    comm::TimeNs timeLimit = comm::NEVER;
    if (readTimeLimit(request.getHeader(headers::TIMEOUT), timeLimit)) {
        const auto error = Response::createErrorResponse(400, BAD_TIME_LIMIT);
        finish(number, serial, &error);
        return;
    }
    std::optional<comm::TimeNs> deadline;
    if (timeLimit != comm::NEVER) {
        deadline = deadlineOf(machine().input.lastReceived(), timeLimit);
    }
    std::unique_ptr<IResponseHandler<Response>> handler = std::make_unique<ResponseSender>(
        std::static_pointer_cast<ServerConnection>(shared_from_this()), number, serial);
    StreamControl control(*this, number, serial);
    m_context.stream = &control;
    void* handle = IKesaApi::UNDEFINED_REQUEST_HANDLE;
    {
        // A caller in this process is nobody else: it has no context.
        const RequestContext::Scope scope(m_scheme == "local" ? nullptr : &m_context, deadline);
        loop().callOut([&] { handle = service->service->request(request, std::move(handler)); },
                       [&] {
                           return "the request '" + request.getCommand() + ' ' + request.getPath() +
                                  "' of the service '" + service->path + "'";
                       });
    }
    m_context.stream = nullptr;
    const Lock lock(m_lock);
    if (Stream* const stream = find(number, serial)) {
        stream->handle = handle;
    }
}

// ---- ends ---------------------------------------------------------------------------------------------------------

void ServerConnection::onClosed(const std::string& reason)
{
    KESA_TRACE(CHANNEL, 2, "[connection] '%s' has ended: %s", peerName().c_str(), reason.c_str());
    const auto self = std::static_pointer_cast<ServerConnection>(shared_from_this());
    {
        const Lock lock(m_lock);
        m_endReason = reason;
    }
    for (auto& [target, entry] : m_targets) {
        m_services->removeInterest(entry.path, entry.interest);
        cancelAll(entry, "");
    }
    m_targets.clear();
    m_services->remove(self);
    for (const LifeQuestion& question : std::exchange(m_lifeQuestions, {})) {
        question.answer(false);
    }
    std::deque<std::function<void()>> dropped; // without the lock
    const Lock lock(m_lock);
    std::swap(dropped, m_drained);
}

bool ServerConnection::isAnswerOwed(comm::TimeNs, bool&)
{
    return false;
}

} // namespace kesa::commadapter
