// Requests and their answers. A request's number on the wire is its place in one flat table; its handle is a count of
// all requests with that number in the low bits, so that a handle is found at once and never comes back. Requests that
// cannot be sent wait in `m_failures` for the loop, which tells their handlers; the low bits of their handles are 0.
//
// Values of a persistent stream are given back to the server once they have been handled, half a window at a time: by
// then they are few frames, and the server does not stand still if they are handled as fast as they come. A handler
// that hands its values on decides with `Receipt` when that is.
//
// Which calls run when, and what waits for what, is explained at the head of ClientConnection.cpp.

#include "backend/client/ClientConnection.h"

#include "backend/connection/channel.h"
#include "backend/connection/timeLimit.h"

#include <kesa/headers.h>
#include <kesa/responsesemantics.h>
#include <obr/GlobalErrorHandler.h>

#include <algorithm>
#include <atomic>
#include <string>

namespace kesa::commadapter {

namespace {

constexpr unsigned STREAM_BITS = 17;
static_assert(MAX_STREAMS < (1U << STREAM_BITS));
static_assert(sizeof(void*) == sizeof(std::uint64_t), "a handle is a count");

constexpr std::size_t TOLD_AT_ONCE = 256;
/// When no number is free: more is the peer's doing than this side's.
constexpr std::size_t MOST_ENDS_OWED = MAX_STREAMS / 2;

constexpr const char* NOT_CONNECTED = "the service is not connected: ";
constexpr const char* TOO_SLOW = "the service is too slow";
constexpr const char* TOO_MANY =
    "too many open requests: a process has at most 65536 at another, and each service, tracking and query is one at "
    "the registry; end some, or let another process have them";
static_assert(MAX_STREAMS == 65536);
constexpr const char* NO_TIME = "no time is left for it";

/// What the headers of a request ask of this side.
struct Wishes {
    comm::TimeNs timeLimit = comm::NEVER;
    bool isPersistent = false;
    /// Only an explicit wish for one answer makes an answer owed: a persistent stream may be silent for ever.
    bool isSingle = false;
};

/// True when the time limit is none.
[[nodiscard]] bool readWishes(const GenericObject& headers, Wishes& wishes)
{
    if (headers.empty()) {
        return false;
    }
    const auto semantic = headers[headers::RESPONSE_SEMANTIC].stringView();
    wishes.isPersistent = semantic == responsesemantics::PERSISTENT_STREAM;
    wishes.isSingle = semantic == responsesemantics::SINGLE_RESPONSE || semantic == responsesemantics::EMPTY_RESPONSE;
    return readTimeLimit(headers[headers::TIMEOUT], wishes.timeLimit);
}

} // namespace

// ---- issuing ------------------------------------------------------------------------------------------------------

std::uint64_t ClientConnection::nextHandle(std::uint32_t stream) noexcept
{
    static std::atomic<std::uint64_t> count{0}; // only to be different each time
    return (count.fetch_add(1, std::memory_order_relaxed) + 1) << STREAM_BITS | stream;
}

std::uint32_t ClientConnection::streamOf(std::uint64_t handle) noexcept
{
    return static_cast<std::uint32_t>(handle & ((1U << STREAM_BITS) - 1));
}

void* ClientConnection::request(ClientState& client, const Request& request, Handler&& handler)
{
    if (!handler) {
        KESA_TRACE(CHANNEL, 3, "[request] '%s' without a handler is not sent", client.path.c_str());
        return IKesaApi::UNDEFINED_REQUEST_HANDLE;
    }
    Lock lock(m_lock);
    if (m_isStopped) {
        lock.unlock();
        handler->onError(Response::createErrorResponse(503, SHUTTING_DOWN));
        return IKesaApi::UNDEFINED_REQUEST_HANDLE;
    }
    if (!isConnected(client)) {
        return fail(lock, client, std::move(handler), 503, NOT_CONNECTED + whyNot(client));
    }
    return send(lock, client, request, std::move(handler));
}

void* ClientConnection::send(Lock& lock, ClientState& client, const Request& request, Handler&& handler)
{
    Wishes wishes;
    if (readWishes(request.getHeaders(), wishes)) {
        return fail(lock, client, std::move(handler), 400, BAD_TIME_LIMIT);
    }
    if (wishes.timeLimit == 0) {
        return fail(lock, client, std::move(handler), 504, NO_TIME);
    }
    if (isRefused(request.getPayload().size(), wishes.isPersistent)) {
        return fail(lock, client, std::move(handler), 503, TOO_SLOW);
    }
    const auto [number, entry] = m_streams.takeAny();
    if (number == 0) {
        noNumberFree();
        return fail(lock, client, std::move(handler), 503, TOO_MANY);
    }
    const auto sent = machine().output.request(number, client.target, request);
    if (sent != protocol::Sent::eQUEUED) {
        m_streams.giveBack(number);
        const bool isTooLarge = sent == protocol::Sent::eTOO_LARGE;
        return fail(lock, client, std::move(handler), isTooLarge ? 413 : 400,
                    "the request " + machine().output.refusal());
    }
    Stream& stream = *entry;
    stream.handler = std::move(handler);
    stream.client = &client;
    stream.handle = nextHandle(number);
    stream.queueEnd = machine().output.queueEnd(number);
    stream.isOpen = true;
    stream.isSingle = wishes.isSingle;
    stream.isPersistent = wishes.isPersistent;
    const std::uint64_t handle = stream.handle;
    const bool isLimited = wishes.timeLimit != comm::NEVER;
    if (stream.isSingle || isLimited) {
        stream.issued = comm::now();
    }
    if (stream.isSingle) {
        ++m_openSingles;
        loop().expectSomething();
    }
    if (isLimited) {
        const bool isValueEnough = wishes.isPersistent || wishes.isSingle;
        limit(stream, deadlineOf(stream.issued, wishes.timeLimit),
              isValueEnough ? Limited::eUNTIL_VALUE : Limited::eUNTIL_END);
    }
    m_streams.append(client.open, number);
    if (machine().output.waitingBytes() > 0) {
        loop().expectSomething(); // credit
    }
    pushOut();
    return reinterpret_cast<void*>(handle);
}

/// Many requests at once are the caller's own; only a peer that takes nothing makes them pile up. A persistent stream
/// is asked for once per connection, so it is never refused on one that goes on to live.
bool ClientConnection::isRefused(std::size_t size, bool isPersistent)
{
    if (!isOverBound(size)) {
        return false; // what others have queued is not this peer's doing
    }
    if (isPersistent) {
        queueBeyondBound();
        return false;
    }
    return isFoundStuck();
}

/// With the lock held. A peer that reads cancels and ends nothing would take all numbers for good; one that is only
/// slow has ended something by the next time.
void ClientConnection::noNumberFree()
{
    const comm::TimeNs now = comm::now();
    if (m_endsOwed < MOST_ENDS_OWED) {
        return;
    }
    if (m_noneFreeSince == comm::NEVER) {
        m_noneFreeSince = now;
    } else if (now - m_noneFreeSince >= loop().settings().heartbeat) {
        m_noneFreeSince = now;
        loop().post([self = std::static_pointer_cast<ClientConnection>(shared_from_this())] {
            self->readAll([connection = self.get()] { // this process may have stood still itself
                Lock lock(connection->m_lock);
                if (connection->m_noneFreeSince != comm::NEVER) {
                    lock.unlock();
                    connection->cutOff("it does not end what was cancelled");
                }
            });
        });
    }
}

/// Hands the error to the loop, which tells it in its turn. When the loop has ended, it is told here.
void* ClientConnection::fail(Lock& lock, const ClientState& client, Handler&& handler, unsigned short status,
                             std::string text)
{
    const std::uint64_t handle = nextHandle(0);
    m_failures.push_back({handle, std::move(handler), status, std::move(text), client.path});
    tellLater();
    if (!m_isStopped) {
        return reinterpret_cast<void*>(handle);
    }
    handler = takeFailed(handle);
    lock.unlock();
    handler->onError(Response::createErrorResponse(503, SHUTTING_DOWN));
    return IKesaApi::UNDEFINED_REQUEST_HANDLE;
}

/// One event for all that fail until it runs, and for a few of them at a time: the loop has others to serve.
void ClientConnection::tellLater()
{
    struct Telling {
        explicit Telling(std::shared_ptr<ClientConnection> toTell) : connection(std::move(toTell)) {}
        Telling(Telling&&) = default;
        ~Telling()
        {
            if (connection) { // dropped: perhaps inside `post`, with the lock held
                connection->m_isLoopGone = true;
            }
        }
        void operator()()
        {
            const auto self = std::exchange(connection, nullptr);
            Lock lock(self->m_lock);
            self->tellFailed(lock, TOLD_AT_ONCE);
            self->m_isTelling = false;
            if (!self->m_failures.empty()) {
                self->tellLater();
            }
        }

        std::shared_ptr<ClientConnection> connection;
    };
    if (!std::exchange(m_isTelling, true)) {
        loop().post(Telling(std::static_pointer_cast<ClientConnection>(shared_from_this())));
    }
    m_isStopped = m_isStopped || m_isLoopGone;
}

ClientConnection::Handler ClientConnection::takeFailed(std::uint64_t handle)
{
    const auto found = std::lower_bound(m_failures.begin(), m_failures.end(), handle,
                                        [](const Failure& failure, std::uint64_t h) { return failure.handle < h; });
    if (found == m_failures.end() || found->handle != handle) {
        return nullptr;
    }
    Handler handler = std::move(found->handler);
    while (!m_failures.empty() && !m_failures.back().handler) {
        m_failures.pop_back();
    }
    return handler;
}

/// In the order in which they were issued. A handler may issue again: that is not told here for ever.
void ClientConnection::tellFailed(Lock& lock, std::size_t atMost)
{
    for (; atMost > 0 && !m_failures.empty(); --atMost) {
        Failure failure = std::move(m_failures.front());
        m_failures.pop_front();
        if (failure.handler) {
            run(lock, failure.handle, failure.path, [&failure] {
                failure.handler->onError(Response::createErrorResponse(failure.status, failure.text));
                failure.handler.reset();
            });
        }
    }
}

void ClientConnection::cancel(const ClientState& client, void* handle)
{
    const auto wanted = reinterpret_cast<std::uint64_t>(handle);
    Handler cancelled; // destroyed without the lock
    Lock lock(m_lock);
    const std::uint32_t number = streamOf(wanted);
    Stream* const stream = m_streams.find(number);
    if (stream != nullptr && stream->handle == wanted && stream->isOpen) {
        cancelled = std::move(stream->handler);
        cancelStream(number);
    } else if (number == 0) {
        cancelled = takeFailed(wanted);
    }
    m_handlerCall.waitForEnd(lock, wanted, loop().isCurrent(), client.path);
}

/// Its number stays taken until the server ends the stream, or the connection ends.
void ClientConnection::cancelStream(std::uint32_t number)
{
    Stream& stream = *m_streams.find(number);
    unlink(number, stream);
    stream.isOpen = false;
    if (!isOpen()) {
        return;
    }
    if (machine().output.cancel(number) == protocol::Cancelled::eNEVER_SENT) {
        m_streams.giveBack(number);
    } else {
        ++m_endsOwed;
    }
    pushOut();
}

void ClientConnection::unlink(std::uint32_t number, Stream& stream)
{
    m_streams.remove(stream.client->open, number);
    unlimit(stream);
    if (stream.isSingle) {
        --m_openSingles;
    }
}

// ---- answers ------------------------------------------------------------------------------------------------------

/// Of the client at `path`, which is there until the loop retires it, so for as long as a handler runs.
template <class Call>
void ClientConnection::callOut(const std::string& path, Call&& call)
{
    loop().callOut(std::forward<Call>(call), [&path] { return "the handler of an answer of '" + path + "'"; });
}

/// Calls a handler without the lock, as the one call that `cancel` may have to wait for.
template <class Call>
void ClientConnection::run(Lock& lock, std::uint64_t handle, const std::string& path, Call&& call)
{
    const decltype(m_handlerCall)::Scope scope(m_handlerCall, handle);
    lock.unlock();
    callOut(path, std::forward<Call>(call));
    lock.lock();
}

/// True, and the connection ends, when the peer answers what it cannot have read: the number of a request that is still
/// queued must not become free.
bool ClientConnection::breaksOrder(Lock& lock, std::uint32_t number, const Stream& stream)
{
    if (!machine().output.isUnsent(number, stream.queueEnd)) {
        return false;
    }
    lock.unlock();
    cutOff("answer to a request that was not sent");
    return true;
}

/// The handler is out of the table meanwhile: whatever becomes of its number, nobody destroys it but this call.
void ClientConnection::onNext(std::uint32_t number, Response response, std::size_t bytes)
{
    Lock lock(m_lock);
    Stream* const stream = m_streams.find(number);
    if (stream == nullptr || breaksOrder(lock, number, *stream) || !stream->isOpen) {
        return; // not open: cancelled, and the server does not know it yet
    }
    if (!stream->client->isAttached && stream->client->listener != nullptr) {
        obr::GlobalErrorHandler::doAssert(false, "stream->client->isAttached", __FILE__, __LINE__, __func__,
                                          "a value after the disconnect of its client object");
    }
    if (stream->limited == Limited::eUNTIL_VALUE) {
        unlimit(*stream);
    }
    if (!stream->isPersistent) {
        bytes = 0;
    } else if (stream->taken >= loop().settings().streamWindow) {
        lock.unlock();
        cutOff("it sends more values than it has credit for");
        return;
    }
    stream->taken += bytes;
    Handler handler = std::move(stream->handler);
    const std::uint64_t handle = stream->handle;
    const ClientState& client = *stream->client;
    const decltype(m_handlerCall)::Scope scope(m_handlerCall, handle);
    lock.unlock();
    if (bytes > 0) {
        const Receipt::Scope receipt(Receipt(issuer(), handle, bytes));
        callOut(client.path, [&] { handler->onNext(response); });
    } else {
        callOut(client.path, [&] { handler->onNext(response); });
    }
    lock.lock();
    if (Stream* const after = findOpen(handle)) { // the table may have grown meanwhile
        after->handler = std::move(handler);
    } else {
        lock.unlock();
        handler.reset();
        lock.lock();
    }
}

ClientConnection::Stream* ClientConnection::findOpen(std::uint64_t handle)
{
    Stream* const stream = m_streams.find(streamOf(handle));
    return stream != nullptr && stream->handle == handle && stream->isOpen ? stream : nullptr;
}

std::weak_ptr<Receipt::IIssuer> ClientConnection::issuer()
{
    return std::shared_ptr<Receipt::IIssuer>(shared_from_this(), this);
}

void ClientConnection::handled(std::uint64_t request, std::size_t bytes) noexcept
{
    const Lock lock(m_lock);
    Stream* const stream = findOpen(request);
    if (stream == nullptr || !isOpen()) {
        return;
    }
    stream->handled += bytes;
    if (stream->handled >= loop().settings().streamWindow / 2) {
        const std::size_t given = std::exchange(stream->handled, 0);
        stream->taken -= given;
        machine().output.credit(streamOf(request), given);
        pushOut();
    }
}

void ClientConnection::onRequestCredit(std::uint32_t bytes)
{
    Lock lock(m_lock);
    if (machine().output.takeRequestCredit(bytes)) {
        lock.unlock();
        cutOff("more credit than the requests have used");
        return;
    }
    pushOut();
}

/// A client stops reading for nobody: so it ends the connection to a provider of another user that has too much under
/// way on all of them.
ClientConnection::Room ClientConnection::onLarge(std::uint32_t number, std::size_t bytes)
{
    {
        const Lock lock(m_lock);
        if (m_streams.find(number) == nullptr) {
            return Room::eNONE;
        }
    }
    std::string why;
    if (!hasRoom(bytes, why) && !loop().accounts().isTrusted(peer().uid)) {
        cutOff(why);
        return Room::eLATER;
    }
    return Room::eTHERE;
}

void ClientConnection::onError(std::uint32_t number, Response error)
{
    endStream(number, &error);
}

void ClientConnection::onCompleted(std::uint32_t number)
{
    endStream(number, nullptr);
}

void ClientConnection::endStream(std::uint32_t number, const Response* error)
{
    Lock lock(m_lock);
    Stream* const stream = m_streams.find(number);
    if (stream == nullptr || breaksOrder(lock, number, *stream)) {
        return;
    }
    if (!stream->isOpen) {
        m_streams.giveBack(number);
        --m_endsOwed;
        m_noneFreeSince = comm::NEVER;
        return;
    }
    unlink(number, *stream);
    Handler handler = std::move(stream->handler);
    const std::uint64_t handle = stream->handle;
    const ClientState& client = *stream->client;
    m_streams.giveBack(number);
    run(lock, handle, client.path, [&] {
        if (error != nullptr) {
            handler->onError(*error);
        } else {
            handler->onCompleted();
        }
        handler.reset();
    });
}

/// Ends the open requests of a client object on this side.
void ClientConnection::endStreams(Lock& lock, ClientState& client, const Response& error)
{
    while (client.open.first != 0) {
        endHere(lock, client.open.first, error);
    }
}

void ClientConnection::endHere(Lock& lock, std::uint32_t number, const Response& error)
{
    Stream& stream = *m_streams.find(number);
    Handler handler = std::move(stream.handler);
    const std::uint64_t handle = stream.handle;
    const ClientState& client = *stream.client;
    cancelStream(number);
    run(lock, handle, client.path, [&] {
        handler->onError(error);
        handler.reset();
    });
}

} // namespace kesa::commadapter
