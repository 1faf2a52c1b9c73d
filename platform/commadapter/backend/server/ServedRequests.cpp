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
// no further request is served, see Connection_output.cpp. For persistent streams, see `QueuePolicy`. What has to end
// is ended by the loop later, never inside `onNext`; whether a client that is over its bound takes nothing at all is
// seen by the heartbeat.

#include "backend/server/ServedRequests.h"

#include "backend/connection/channel.h"
#include "backend/connection/timeLimit.h"
#include "backend/server/ServerConnection.h"

#include <kesa/IResponseHandler.h>
#include <kesa/RequestContext.h>
#include <kesa/headers.h>

#include <fmt/format.h>

#include <optional>
#include <string>
#include <utility>

namespace kesa::commadapter {

namespace {

/// What a service answers through.
class ResponseSender final : public IResponseHandler<Response> {
public:
    ResponseSender(std::shared_ptr<ServedRequests> served, std::uint32_t stream, std::uint64_t serial)
        : m_served(std::move(served)), m_stream(stream), m_serial(serial)
    {}
    ~ResponseSender() override
    {
        if (m_served) {
            const auto error = Response::createErrorResponse(503, "the service dropped the request");
            m_served->finish(m_stream, m_serial, &error);
        }
    }
    ResponseSender(const ResponseSender&) = delete;
    ResponseSender& operator=(const ResponseSender&) = delete;

    bool onNext(const Response& response) override { return !m_served || m_served->next(m_stream, m_serial, response); }
    void onError(const Response& error) override { finish(&error); }
    void onCompleted() override { finish(nullptr); }

private:
    void finish(const Response* error)
    {
        if (const auto served = std::exchange(m_served, nullptr)) {
            served->finish(m_stream, m_serial, error);
        }
    }

    std::shared_ptr<ServedRequests> m_served; ///< null after the end
    const std::uint32_t m_stream;
    const std::uint64_t m_serial;
};

/// Apart from the response handler, which the service may destroy while it is given the request.
class StreamControl final : public IStreamControl {
public:
    StreamControl(ServedRequests& served, std::uint32_t stream, std::uint64_t serial)
        : m_served(served), m_stream(stream), m_serial(serial)
    {}
    void setQueuePolicy(QueuePolicy policy) override { m_served.setPolicy(m_stream, m_serial, policy); }

private:
    ServedRequests& m_served;
    const std::uint32_t m_stream;
    const std::uint64_t m_serial;
};

} // namespace

// ---- requests ------------------------------------------------------------------------------------------------------

void ServedRequests::serve(std::uint32_t number, Target* target, const Request& request, bool isPersistent,
                           comm::TimeNs came)
{
    const auto service = target != nullptr ? target->service : nullptr;
    auto lock = m_connection.lock();
    if (!m_connection.isOpen()) {
        return;
    }
    if (number == 0 || number > MAX_STREAMS || m_streams.find(number) != nullptr ||
        m_connection.output().isWaiting(number)) {
        lock.unlock();
        m_connection.cutOff(number > MAX_STREAMS ? "too many open requests" : "request number in use");
        return;
    }
    std::string why = service && m_streams.needsPart(number) ? whyNoPart() : std::string();
    if (!service || !why.empty()) {
        Response error =
            Response::createErrorResponse(503, service ? "too many open requests" : "the service is not provided");
        if (!why.empty()) {
            headers::appendReason(error, why);
        }
        m_connection.output().error(number, error);
        m_connection.pushOut();
        return;
    }
    Stream* const stream = m_streams.take(number);
    stream->serial = ++m_lastSerial;
    stream->sameTarget = &target->open;
    stream->service = service;
    stream->isPersistent = isPersistent;
    m_streams.append(target->open, number);
    const std::uint64_t serial = stream->serial;
    m_calledSerial.store(serial, std::memory_order_relaxed);
    lock.unlock();
    if (const auto refusal = m_connection.refusal(*target, request)) {
        finish(number, serial, &*refusal);
        return;
    }
    callService(number, serial, service, request, came);
}

bool ServedRequests::isFree(std::uint32_t number)
{
    const auto lock = m_connection.lock();
    return number <= MAX_STREAMS && m_streams.find(number) == nullptr && !m_connection.output().isWaiting(number);
}

void ServedRequests::callService(std::uint32_t number, std::uint64_t serial,
                                 const std::shared_ptr<ProvidedService>& service, const Request& request,
                                 comm::TimeNs came)
{
    comm::TimeNs timeLimit = comm::NEVER;
    if (readTimeLimit(request.getHeader(headers::TIMEOUT), timeLimit)) {
        const auto error = Response::createErrorResponse(400, BAD_TIME_LIMIT);
        finish(number, serial, &error);
        return;
    }
    std::optional<comm::TimeNs> deadline;
    if (timeLimit != comm::NEVER) {
        deadline = deadlineOf(came, timeLimit);
    }
    std::unique_ptr<IResponseHandler<Response>> handler =
        std::make_unique<ResponseSender>(m_connection.share(*this), number, serial);
    StreamControl control(*this, number, serial);
    RequestContext& context = m_connection.m_context;
    context.stream = &control;
    void* handle = IKesaApi::UNDEFINED_REQUEST_HANDLE;
    {
        // A caller in this process is nobody else: it has no context.
        const RequestContext::Scope scope(m_connection.isLocal() ? nullptr : &context, deadline);
        m_connection.loop().callOut([&] { handle = service->service->request(request, std::move(handler)); },
                                    [&] {
                                        return "the request '" + request.getCommand() + ' ' + request.getPath() +
                                               "' of the service '" + service->path + "'";
                                    });
    }
    context.stream = nullptr;
    if (m_calledSerial.load(std::memory_order_relaxed) != serial) {
        return; // answered already
    }
    const auto lock = m_connection.lock();
    if (Stream* const stream = find(number, serial)) {
        stream->handle = handle;
    }
}

// ---- answers -------------------------------------------------------------------------------------------------------

ServedRequests::Stream* ServedRequests::find(std::uint32_t number, std::uint64_t serial)
{
    Stream* const stream = m_streams.find(number);
    return m_connection.isOpen() && stream != nullptr && stream->serial == serial ? stream : nullptr;
}

bool ServedRequests::next(std::uint32_t number, std::uint64_t serial, const Response& response)
{
    const auto lock = m_connection.lock();
    Stream* const stream = find(number, serial);
    if (stream == nullptr || stream->isCut || m_connection.isBroken()) {
        return true;
    }
    const std::size_t size = response.getPayload().size();
    if (stream->hasLatest) {
        if (const auto sent = m_connection.output().tryNext(response); sent != protocol::Sent::eQUEUED) {
            refuseValue(number, *stream, sent);
            return true;
        }
        stream->latest->response = response;
        return false;
    }
    if (isTooMuch(number, *stream, size)) {
        if (stream->policy == QueuePolicy::eKEEP_LATEST) {
            if (const auto sent = m_connection.output().tryNext(response); sent != protocol::Sent::eQUEUED) {
                refuseValue(number, *stream, sent);
                return true;
            }
            keepLatest(number, *stream, response);
            return false;
        }
        if (isRefused(number, *stream, size)) {
            return true;
        }
    }
    const auto sent = m_connection.output().next(number, response, stream->isPersistent);
    if (sent != protocol::Sent::eQUEUED) {
        refuseValue(number, *stream, sent);
        return true;
    }
    m_connection.pushOut(ServerConnection::Haste::eMAY_GATHER);
    return false;
}

void ServedRequests::finish(std::uint32_t number, std::uint64_t serial, const Response* error)
{
    const auto lock = m_connection.lock();
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
        m_connection.output().error(number, *error);
    } else {
        m_connection.output().completed(number);
    }
    release(number);
    m_connection.pushOut();
}

void ServedRequests::setPolicy(std::uint32_t number, std::uint64_t serial, QueuePolicy policy)
{
    const auto lock = m_connection.lock();
    if (Stream* const stream = find(number, serial)) {
        stream->policy = policy;
    }
}

/// The value that waits, before the stream's end.
void ServedRequests::queueLatest(std::uint32_t number, Stream& stream)
{
    if (std::exchange(stream.hasLatest, false)) {
        // It was tried before.
        static_cast<void>(m_connection.output().next(number, stream.latest->response, stream.isPersistent));
        dropLatest(stream);
    }
}

void ServedRequests::keepLatest(std::uint32_t number, Stream& stream, const Response& response)
{
    stream.hasLatest = true;
    stream.isCreditless = m_connection.output().isWaiting(number);
    auto& list = stream.isCreditless ? m_creditless : m_latest;
    stream.latest = list.insert(list.end(), {number, response});
}

void ServedRequests::dropLatest(Stream& stream)
{
    (stream.isCreditless ? m_creditless : m_latest).erase(stream.latest);
}

void ServedRequests::release(std::uint32_t number)
{
    Stream& stream = *m_streams.find(number);
    if (stream.hasLatest) {
        dropLatest(stream);
    }
    if (stream.serial == m_calledSerial.load(std::memory_order_relaxed)) {
        m_calledSerial.store(0, std::memory_order_relaxed);
    }
    m_streams.remove(*stream.sameTarget, number);
    m_streams.release(number);
    if (m_streams.parts() < m_counted && !std::exchange(m_isCountDue, true)) {
        m_connection.loop().post([self = m_connection.share(*this)] {
            const auto lock = self->m_connection.lock();
            self->m_isCountDue = false;
            self->count(self->m_connection.isOpen() ? self->m_streams.parts() : 0);
        });
    }
}

/// With one part more, which is counted if it may be.
std::string ServedRequests::whyNoPart()
{
    std::string why =
        m_connection.loop().accounts().whyNoMore(UserAccounts::Kind::eREQUESTS, m_connection.m_context.uid, PART_BYTES);
    if (why.empty()) {
        count(m_streams.parts() + 1);
    }
    return why;
}

void ServedRequests::count(std::size_t parts)
{
    m_connection.loop().accounts().change(UserAccounts::Kind::eREQUESTS, m_connection.m_context.uid,
                                          PART_BYTES * std::exchange(m_counted, parts), PART_BYTES * parts);
}

void ServedRequests::end()
{
    const auto lock = m_connection.lock();
    count(0);
}

void ServedRequests::addFacts(ConnectionFacts& facts) const
{
    facts.cutStreams = m_cuts;
    facts.openRequests = m_streams.countTaken();
}

// ---- clients that are too slow -------------------------------------------------------------------------------------

/// Whether the stream's policy decides. Of a call only a value that would wait behind another of the same call is
/// judged, by all that calls have queued here: serving no further bounds how many calls there are, not what each says.
bool ServedRequests::isTooMuch(std::uint32_t number, Stream& stream, std::size_t size)
{
    if (stream.isPersistent) {
        return m_connection.isOverBound(size) || m_connection.isSharedOverBound(size);
    }
    if (!std::exchange(stream.hasValue, true)) {
        return false;
    }
    const CommSettings& settings = m_connection.loop().settings();
    const auto together = m_connection.shared(&QueuedBytes::Amount::all);
    const std::size_t bound = together.queued > together.bound ? settings.sendQueueBytes : together.bound;
    return m_connection.output().queuedBytes() > bound + m_connection.output().persistentBytes() &&
           m_connection.output().queuedBytes(number) > 0;
}

/// Over the bound: whether the value is not to be queued. What else follows is left to the loop.
bool ServedRequests::isRefused(std::uint32_t number, Stream& stream, std::size_t size)
{
    if (stream.policy == QueuePolicy::eCUT_STREAM) {
        Response error = tooSlow(stream, size);
        m_connection.output().dropQueued(number);
        postCut(number, stream, std::move(error));
        return true;
    }
    if (stream.isPersistent && !m_connection.isSharedOverBound(size)) {
        m_connection.queueBeyondBound();
        return false;
    }
    stream.isCut = true;
    m_connection.loop().post(
        [self = m_connection.share(*this)] { self->m_connection.cutOff(ServerConnection::TAKES_NOTHING); });
    return true;
}

/// Tells both sides whose it was, how much waits, and what may. One line in a second: who has many streams loses many,
/// and who follows one loses it again and again.
Response ServedRequests::tooSlow(const Stream& stream, std::size_t size)
{
    const auto which = stream.isPersistent ? &QueuedBytes::Amount::persistent : &QueuedBytes::Amount::all;
    const auto together = m_connection.shared(which);
    const bool isOwnBound = stream.isPersistent ? m_connection.isOverBound(size) : together.queued > together.bound;
    const bool isOfAll = stream.isPersistent && !isOwnBound;
    const std::size_t ofConnection =
        stream.isPersistent ? m_connection.output().persistentBytes()
                            : m_connection.output().queuedBytes() - m_connection.output().persistentBytes();
    const std::string why = fmt::format(
        "the client '{}' takes values more slowly than they come: {} bytes wait for it{}, with the next {} more than "
        "{}",
        m_connection.peerName(), isOfAll ? together.queued : ofConnection,
        !isOfAll            ? ""
        : together.isOfUser ? " and others of its user"
                            : " and others",
        size,
        isOwnBound ? fmt::format("the provider's \"comm\", \"send_queue_bytes\" of {}",
                                 m_connection.loop().settings().sendQueueBytes)
                   : fmt::format("the {} that the provider keeps for {}", together.bound,
                                 together.isOfUser ? "a user's clients" : "all"));
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
void ServedRequests::refuseValue(std::uint32_t number, Stream& stream, protocol::Sent why)
{
    const bool isTooLarge = why == protocol::Sent::eTOO_LARGE;
    const PeerLimit limit = m_connection.peerLimit();
    KESA_TRACE(CHANNEL, 3, "[answer] '%s': an answer is not sent: it %s", stream.service->path.c_str(),
               m_connection.output().refusal().c_str());
    postCut(number, stream,
            Response::createErrorResponse(isTooLarge ? 413 : 500, "the answer " + m_connection.output().refusal()));
}

void ServedRequests::postCut(std::uint32_t number, Stream& stream, Response error)
{
    stream.isCut = true;
    m_connection.loop().post([self = m_connection.share(*this), number, serial = stream.serial,
                              error = std::move(error)] { self->cut(number, serial, error); });
}

void ServedRequests::cut(std::uint32_t number, std::uint64_t serial, const Response& error)
{
    auto lock = m_connection.lock();
    if (find(number, serial) != nullptr) {
        lock.unlock();
        cancelAtService(number, error, Waiting::eSENT);
    }
}

// ---- ends ----------------------------------------------------------------------------------------------------------

void ServedRequests::cancel(std::uint32_t number)
{
    auto lock = m_connection.lock();
    if (m_streams.find(number) != nullptr) {
        m_connection.output().dropQueued(number);
        lock.unlock();
        cancelAtService(number, Response::createErrorResponse(503, "cancelled"), Waiting::eDROPPED);
    } else if (m_connection.isOpen()) { // it has ended meanwhile: only its end is still wanted
        m_connection.output().dropWaiting(number);
        m_connection.pushOut();
    }
}

void ServedRequests::credit(std::uint32_t number, std::size_t bytes)
{
    using Given = protocol::StreamWindows::Given;
    auto lock = m_connection.lock();
    if (!m_connection.isOpen()) {
        return;
    }
    Stream* const stream = m_streams.find(number);
    const Given given = m_connection.output().takeCredit(number, bytes);
    if (given == Given::eTOO_MUCH || (given == Given::eUNKNOWN && stream != nullptr)) {
        lock.unlock();
        m_connection.cutOff("more credit than a stream has used");
        return;
    }
    if (stream != nullptr && stream->hasLatest && stream->isCreditless && !m_connection.output().isWaiting(number)) {
        queueLatest(number, *stream);
    }
    m_connection.pushOut();
}

void ServedRequests::cancelAll(StreamList& requests, const char* text)
{
    auto lock = m_connection.lock();
    while (requests.first != 0) {
        const std::uint32_t number = requests.first;
        lock.unlock();
        cancelAtService(number, Response::createErrorResponse(503, text), Waiting::eDROPPED);
        lock.lock();
    }
}

/// Ends a stream and tells its service, unless that has done with it. For a path that goes its client waits no longer,
/// so the end does not wait behind values that have no credit.
void ServedRequests::cancelAtService(std::uint32_t number, const Response& error, Waiting waiting)
{
    auto lock = m_connection.lock();
    Stream* const stream = m_streams.find(number);
    if (stream == nullptr) {
        return;
    }
    const auto service = stream->service;
    void* const handle = stream->isFinished ? IKesaApi::UNDEFINED_REQUEST_HANDLE : stream->handle;
    if (m_connection.isOpen()) {
        queueLatest(number, *stream);
        if (waiting == Waiting::eDROPPED) {
            m_connection.output().dropWaiting(number);
        }
        m_connection.output().error(number, error);
        release(number);
        m_connection.pushOut();
    } else {
        release(number);
    }
    lock.unlock();
    if (handle != IKesaApi::UNDEFINED_REQUEST_HANDLE && !service->isWithdrawn) {
        m_connection.loop().callOut([&] { service->service->cancel(handle); },
                                    [&] { return "the cancel of a request of the service '" + service->path + "'"; });
    }
}

} // namespace kesa::commadapter
