#include <runtime/v02/runtime/RemoteRegistryHandler.h>

#include <kesa/core/response_handlers.h>
#include <obr/GlobalErrorHandler.h>
#include <runtime/v02/runtime/channels.h>

#include <string>
#include <utility>

namespace kesa::runtime::v02 {

/// While foreign functions run with the lock held.
class RemoteRegistryHandler::Dispatching {
public:
    explicit Dispatching(std::atomic<bool>& flag) : m_flag(flag) { m_flag = true; }
    ~Dispatching() { m_flag = false; }
    Dispatching(const Dispatching&) = delete;
    Dispatching& operator=(const Dispatching&) = delete;

private:
    std::atomic<bool>& m_flag;
};

RemoteRegistryHandler::RemoteRegistryHandler(Connect connect) : m_connect(std::move(connect))
{
    m_connect(std::make_unique<responsehandlers::FuncResponseHandler<std::shared_ptr<ServiceRegistryPex>>>(
        [this](const std::shared_ptr<ServiceRegistryPex>& registry) {
            connectionChanged(registry);
            return false;
        },
        [](const Response& error) {
            const std::string text = Response::getErrorMessageWithCode(error);
            KESA_TRACE(MAIN_CHANNEL, 4, "[RemoteRegistryHandler onError] Received error: %s", text.c_str());
        },
        [] { KESA_TRACE(MAIN_CHANNEL, 4, "[RemoteRegistryHandler onCompleted] should never happend logical error"); }));
}

void RemoteRegistryHandler::connectionChanged(const std::shared_ptr<ServiceRegistryPex>& registry)
{
    KESA_TRACE(MAIN_CHANNEL, 2, "[RemoteRegistryHandler onNext] value %p", static_cast<const void*>(registry.get()));
    std::shared_ptr<ServiceRegistryPex> before = registry;
    const std::lock_guard<std::mutex> lock(m_lock);
    const Dispatching dispatching(m_isDispatching);
    m_registry.swap(before);
    if (before && !registry && !m_requests.empty()) { // the errors of registrations read as if their services had ended
        KESA_TRACE(
            MAIN_CHANNEL, 3,
            "[RemoteRegistryHandler] the registry has ended, or the connection to it: what this process provides "
            "stays, and is registered again when it is back");
    }
    for (auto& [id, request] : m_requests) {
        if (before) {
            before->main()->cancelRequest(std::exchange(request.handle, nullptr));
        }
        if (before || !registry) {
            request.onDisconnect(id);
        }
        if (registry) {
            issue(id, request);
        }
    }
}

/// With the lock held, and a registry.
void RemoteRegistryHandler::issue(std::uint32_t id, Request& request)
{
    request.lastIssue = ++m_lastIssue;
    request.handle = request.issue(m_registry->main(), {id, request.lastIssue});
}

std::uint32_t RemoteRegistryHandler::execute(Request request)
{
    notDispatching();
    const std::lock_guard<std::mutex> lock(m_lock);
    const std::uint32_t id = m_nextId++;
    Request& kept = m_requests.emplace(id, std::move(request)).first->second;
    if (m_registry) {
        const Dispatching dispatching(m_isDispatching);
        issue(id, kept);
    }
    return id;
}

void RemoteRegistryHandler::cancel(std::uint32_t id)
{
    notDispatching();
    decltype(m_requests)::node_type leaving; // dies without the lock
    const std::lock_guard<std::mutex> lock(m_lock);
    leaving = m_requests.extract(id);
    if (!leaving.empty() && m_registry) {
        const Dispatching dispatching(m_isDispatching);
        m_registry->main()->cancelRequest(leaving.mapped().handle);
    }
}

bool RemoteRegistryHandler::isLatest(const Issue& issue)
{
    notDispatching();
    const std::lock_guard<std::mutex> lock(m_lock);
    const auto found = m_requests.find(issue.request);
    return found != m_requests.end() && found->second.lastIssue == issue.number;
}

void RemoteRegistryHandler::notDispatching() const
{
    if (m_isDispatching) {
        obr::GlobalErrorHandler::doAssert(false, "!m_isDispatching", __FILE__, __LINE__, __func__,
                                          "a request called back while it was issued");
    }
}

} // namespace kesa::runtime::v02
