#include "sim/Service.h"

#include <kesa/Request.h>
#include <kesa/RequestContext.h>

#include <algorithm>
#include <mutex>
#include <string>

namespace kesa::sim {

Service::Service(Verdict& verdict, Calls& calls, std::shared_ptr<Belief> registration, std::uint64_t group,
                 std::size_t largest, std::uint64_t seed)
    : m_verdict(verdict), m_calls(calls), m_registration(std::move(registration)), m_group(group), m_largest(largest)
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
        call->asked(RequestContext::deadline());
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
    if (choice == 0) {
        taken->onNext(Response(200, Payload::createFromString("one", "plain/text")));
        taken->onCompleted();
        return UNDEFINED_REQUEST_HANDLE;
    }
    if (choice == 1) {
        return UNDEFINED_REQUEST_HANDLE; // dropped unfinished
    }
    const std::lock_guard<std::mutex> lock(m_verdict.mutex);
    m_open.push_back({number, std::move(call), std::move(taken)});
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
    std::unique_ptr<IResponseHandler<Response>> ended;
    const std::lock_guard<std::mutex> lock(m_verdict.mutex);
    checkAlive();
    const auto number = reinterpret_cast<std::uint64_t>(handle);
    const auto found =
        std::find_if(m_open.begin(), m_open.end(), [number](const Open& open) { return open.number == number; });
    if (found != m_open.end()) {
        ended = std::move(found->handler);
        m_open.erase(found);
    }
}

void Service::answerOne()
{
    Open taken;
    std::uint64_t choice = 0;
    {
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        if (m_open.empty()) {
            return;
        }
        const std::size_t index = m_random.below(m_open.size());
        taken = std::move(m_open[index]);
        m_open.erase(m_open.begin() + static_cast<std::ptrdiff_t>(index));
        choice = m_random.below(4);
    }
    if (choice == 0) {
        taken.handler->onCompleted();
    } else if (choice == 1) {
        taken.handler->onError(Response::createErrorResponse(418, "no"));
    } else {
        taken.handler->onNext(
            Response(200, Payload::createFromString(std::string(m_random.below(9000), 'x'), "plain/text")));
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        m_open.push_back(std::move(taken));
    }
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

void Service::checkAlive()
{
    if (m_registration->destroyed) {
        m_verdict.fail("no call into a service that was withdrawn", m_registration->name);
    }
}

} // namespace kesa::sim
