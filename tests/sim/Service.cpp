#include "sim/Service.h"

#include <kesa/Request.h>
#include <kesa/RequestContext.h>

#include <algorithm>
#include <mutex>
#include <string>

namespace kesa::sim {

namespace {

constexpr std::uint64_t MOST_VALUES = 40;
constexpr std::size_t FRAME_BYTES = 60'000; ///< always go at once

thread_local bool isAskingToWait = false;

std::shared_ptr<IPeer> peerNow()
{
    const RequestContext* const context = RequestContext::current();
    return context == nullptr ? nullptr : context->peer;
}

} // namespace

Service::Service(Verdict& verdict, Calls& calls, std::shared_ptr<Belief> registration, std::uint64_t group,
                 std::size_t largest, std::uint64_t seed)
    : m_verdict(verdict), m_calls(calls), m_registration(std::move(registration)), m_group(group), m_largest(largest),
      m_drained(verdict)
{
    m_random.state = seed;
}

void* Service::request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler)
{
    std::uint64_t number = 0;
    std::uint64_t choice = 0;
    std::shared_ptr<Call> call;
    {
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        checkAlive();
        number = ++m_handles;
        choice = m_random.below(4);
        call = m_calls.of(request);
        call->asked(m_group, RequestContext::deadline());
        checkTurn(*call);
    }
    std::unique_ptr<IResponseHandler<Response>> taken = std::move(handler);
    if (call->wish().isLarge()) {
        answerLarge(*call, *taken);
        return UNDEFINED_REQUEST_HANDLE;
    }
    if (request.getPath() == Wish::WHO) {
        taken->onNext(Response(200, Payload::createFromString(m_registration->claim, "plain/text")));
        taken->onCompleted();
        return UNDEFINED_REQUEST_HANDLE;
    }
    Open open{number, std::move(call), std::move(taken), peerNow()};
    if (open.call->feed()) {
        if (open.peer) {
            RequestContext::current()->stream->setQueuePolicy(open.call->wish().policy);
            open.call->feed()->setPolicy(open.call->wish().policy);
        }
        feed(std::move(open));
        return reinterpret_cast<void*>(number);
    }
    if (choice == 0) {
        open.handler->onNext(Response(200, Payload::createFromString("one", "plain/text")));
    }
    if (choice < 2) {
        end(open, choice == 0 ? End::eCOMPLETED : End::eDROPPED);
        return UNDEFINED_REQUEST_HANDLE;
    }
    const std::lock_guard<std::mutex> lock(m_verdict.mutex);
    m_open.push_back(std::move(open));
    return reinterpret_cast<void*>(number);
}

void Service::answerLarge(Call& call, IResponseHandler<Response>& handler)
{
    std::string text = call.number() + ' ';
    {
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        text += std::string(m_largest / 8 + m_random.below(m_largest * 7 / 8), 'x');
        call.given(text.size(), m_calls.flow(call.group(), m_group));
    }
    const bool isRefused = handler.onNext(Response(200, Payload::createFromString(std::move(text), "plain/text")));
    {
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        isRefused ? call.taken() : call.accepted();
    }
    handler.onCompleted();
}

void Service::cancel(void* handle)
{
    Open ended; // its handler dies without the mutex
    const std::lock_guard<std::mutex> lock(m_verdict.mutex);
    checkAlive();
    ended = take(reinterpret_cast<std::uint64_t>(handle));
    if (ended.call) {
        ended.call->left();
        if (ended.call->feed()) {
            ended.call->feed()->cancelled();
        }
    }
}

/// Empty when it is not open. With the verdict's mutex held.
Service::Open Service::take(std::uint64_t number)
{
    Open taken;
    const auto found =
        std::find_if(m_open.begin(), m_open.end(), [number](const Open& open) { return open.number == number; });
    if (found != m_open.end()) {
        taken = std::move(*found);
        m_open.erase(found);
    }
    return taken;
}

std::uint64_t Service::draw(std::uint64_t bound)
{
    const std::lock_guard<std::mutex> lock(m_verdict.mutex);
    return m_random.below(bound);
}

void Service::answerOne()
{
    std::unique_lock<std::mutex> lock(m_verdict.mutex);
    if (m_open.empty()) {
        return;
    }
    Open taken = take(m_open[m_random.below(m_open.size())].number);
    lock.unlock();
    if (taken.call->feed()) {
        feed(std::move(taken));
    } else if (const std::uint64_t choice = draw(4); choice < 2) {
        end(taken, choice == 0 ? End::eCOMPLETED : End::eERROR);
    } else {
        taken.handler->onNext(Response(200, Payload::createFromString(std::string(draw(9000), 'x'), "plain/text")));
        keep(std::move(taken));
    }
}

void Service::keep(Open open)
{
    const std::lock_guard<std::mutex> lock(m_verdict.mutex);
    m_open.push_back(std::move(open));
}

void Service::end(Open& open, End how)
{
    {
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        open.call->left();
    }
    if (how == End::eCOMPLETED) {
        open.handler->onCompleted();
    } else if (how == End::eERROR) {
        open.handler->onError(Response::createErrorResponse(418, "no"));
    }
    open.handler.reset(); // dropped unfinished, unless it has ended
}

// ---- feeds --------------------------------------------------------------------------------------------------------

/// Whether its asker takes them or not.
void Service::feed(Open open)
{
    Feed& feed = *open.call->feed();
    for (std::uint64_t count = draw(MOST_VALUES); count > 0; --count) {
        std::unique_lock<std::mutex> lock(m_verdict.mutex);
        const Response value(
            200, Payload::createFromString(feed.next(m_random.below(m_calls.feedBounds().largest)), "plain/text"));
        lock.unlock();
        const bool isRefused = open.handler->onNext(value);
        lock.lock();
        isRefused ? feed.refused(m_calls.mostUnderWay(m_group, open.call->group())) : feed.accepted();
    }
    if (open.peer && draw(3) == 0) {
        waitUntilDrained(open);
    }
    if (draw(8) == 0) {
        end(open, static_cast<End>(draw(3)));
    } else {
        keep(std::move(open));
    }
}

void Service::waitUntilDrained(const Open& open)
{
    std::unique_lock<std::mutex> lock(m_verdict.mutex);
    const auto task = m_drained.add(open.peer);
    lock.unlock();
    isAskingToWait = true;
    open.peer->whenDrained([this, task, number = open.number] { runDrained(task, number); });
    isAskingToWait = false;
}

void Service::runDrained(const std::shared_ptr<void>& task, std::uint64_t number)
{
    std::unique_lock<std::mutex> lock(m_verdict.mutex);
    if (isAskingToWait) {
        m_verdict.fail("what waits for the queue never runs inside of the call", m_registration->name);
    }
    m_drained.runs(
        task, [this](const IPeer& peer) { return underWayTo(peer); }, m_calls.feedBounds().beyond);
    Open open = take(number);
    lock.unlock();
    if (open.handler && draw(2) == 0) {
        feed(std::move(open));
    } else if (open.handler) {
        keep(std::move(open));
    }
}

/// With the verdict's mutex held.
std::size_t Service::underWayTo(const IPeer& peer) const
{
    std::size_t bytes = 0;
    for (const Open& open : m_open) {
        if (open.peer.get() == &peer && open.call->feed() && !open.call->isOver()) {
            const std::size_t underWay = open.call->feed()->underWay();
            bytes += underWay - std::min(underWay, 2 * m_calls.feedBounds().largest); // one may have come in part
        }
    }
    return bytes;
}

void Service::dropAll()
{
    std::vector<Open> open;
    const std::lock_guard<std::mutex> lock(m_verdict.mutex);
    open.swap(m_open);
}

std::shared_ptr<Call> Service::overButOpen() const
{
    if (m_registration->ended.number != 0) {
        return nullptr; // whoever withdraws a service ends its requests himself
    }
    const auto found = std::find_if(m_open.begin(), m_open.end(), [](const Open& open) { return open.call->isOver(); });
    return found == m_open.end() ? nullptr : found->call;
}

/// What a process asks over one connection comes in the order in which it was issued; what is large may be overtaken.
/// Of this process it may come over more than one.
void Service::checkTurn(const Call& call)
{
    const auto peer = peerNow();
    if (peer && !call.number().empty() && call.wish().bodyBytes < FRAME_BYTES) {
        std::uint64_t& last = m_lastAsked[peer.get()];
        const std::uint64_t number = std::stoull(call.number());
        if (number < last) {
            m_verdict.fail("requests come in the order in which they were issued", call.belief()->name);
        }
        last = number;
    }
}

void Service::checkAlive()
{
    if (m_registration->destroyed) {
        m_verdict.fail("no call into a service that was withdrawn", m_registration->name);
    }
}

} // namespace kesa::sim
