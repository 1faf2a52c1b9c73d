#include "Service.h"

#include <kesa/Request.h>

#include <algorithm>
#include <mutex>
#include <string>

namespace kesa::sim {

Service::Service(Verdict& verdict, std::shared_ptr<Belief> registration, std::uint64_t seed)
    : m_verdict(verdict), m_registration(std::move(registration))
{
    m_random.state = seed;
}

void* Service::request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler)
{
    std::uint64_t number = 0;
    std::uint64_t choice = 0;
    {
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        checkAlive();
        number = ++m_handles;
        choice = m_random.below(4);
    }
    std::unique_ptr<IResponseHandler<Response>> taken = std::move(handler);
    if (request.getPath() == WHO) {
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
    m_open.emplace_back(number, std::move(taken));
    return reinterpret_cast<void*>(number);
}

void Service::cancel(void* handle)
{
    std::unique_ptr<IResponseHandler<Response>> ended;
    const std::lock_guard<std::mutex> lock(m_verdict.mutex);
    checkAlive();
    const auto number = reinterpret_cast<std::uint64_t>(handle);
    const auto found =
        std::find_if(m_open.begin(), m_open.end(), [number](const auto& open) { return open.first == number; });
    if (found != m_open.end()) {
        ended = std::move(found->second);
        m_open.erase(found);
    }
}

void Service::answerOne()
{
    std::unique_ptr<IResponseHandler<Response>> taken;
    std::uint64_t number = 0;
    std::uint64_t choice = 0;
    {
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        if (m_open.empty()) {
            return;
        }
        const std::size_t index = m_random.below(m_open.size());
        number = m_open[index].first;
        taken = std::move(m_open[index].second);
        m_open.erase(m_open.begin() + static_cast<std::ptrdiff_t>(index));
        choice = m_random.below(4);
    }
    if (choice == 0) {
        taken->onCompleted();
    } else if (choice == 1) {
        taken->onError(Response::createErrorResponse(418, "no"));
    } else {
        taken->onNext(Response(200, Payload::createFromString(std::string(m_random.below(9000), 'x'), "plain/text")));
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        m_open.emplace_back(number, std::move(taken));
    }
}

void Service::dropAll()
{
    std::vector<std::pair<std::uint64_t, std::unique_ptr<IResponseHandler<Response>>>> open;
    const std::lock_guard<std::mutex> lock(m_verdict.mutex);
    open.swap(m_open);
}

void Service::checkAlive()
{
    if (m_registration->destroyed) {
        m_verdict.fail("no call into a service that was withdrawn", m_registration->name);
    }
}

} // namespace kesa::sim
