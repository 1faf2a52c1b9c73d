#include <runtime/v02/runtime/MyClientConnectionListener.h>

#include <kesa/FuncCallEvent.h>
#include <obr/GlobalErrorHandler.h>
#include <runtime/v02/runtime/channels.h>

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace kesa::runtime::v02 {

namespace {

const char* nameOf(bool connected)
{
    return connected ? "clientConnected" : "clientDisconnected";
}

} // namespace

BackendList::MyClientConnectionListener::MyClientConnectionListener(const url& locator, commadapter::IBackend* backend,
                                                                    std::shared_ptr<comm::ActiveObject> activeObject)
    : m_locator(locator), m_backend(backend), m_activeObject(std::move(activeObject))
{
    KESA_TRACE(BACKENDS_CHANNEL, 2, "ctor MyClientConnectionListener");
}

void BackendList::MyClientConnectionListener::clientConnected()
{
    KESA_TRACE_TEXT(BACKENDS_CHANNEL, 2, fmt::format("clientConnected enqueue: '{}'", m_locator.toString()));
    changeConnectionState(true);
}

void BackendList::MyClientConnectionListener::clientDisconnected()
{
    KESA_TRACE_TEXT(BACKENDS_CHANNEL, 2, fmt::format("clientDisconnected enqueue: '{}'", m_locator.toString()));
    changeConnectionState(false);
}

void BackendList::MyClientConnectionListener::clientError(unsigned short code, const std::string& message)
{
    KESA_TRACE_TEXT(BACKENDS_CHANNEL, 3,
                    fmt::format("clientError enqueue on '{}': {} '{}'", m_locator.toString(), code, message));
    post(*m_activeObject, [observer = weak_from_this(), code, message = message] {
        if (const auto observe = observer.lock()) {
            observe->connectionFailed(code, message);
        } else {
            KESA_TRACE(BACKENDS_CHANNEL, 2, "clientError: MyClientConnectionListener already dead");
        }
    });
}

/// A peer may come and go for as long as it likes. Of changes that nobody has been told yet the last two tell as much
/// as all: what is now, and that something else was in between.
void BackendList::MyClientConnectionListener::changeConnectionState(bool connected)
{
    constexpr std::size_t MOST_CHANGES = 2;
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        if (m_changes.size() == MOST_CHANGES) {
            m_changes.back() = connected;
            m_changes.resize(m_changes.front() == connected ? 1 : MOST_CHANGES);
            return;
        }
        m_changes.push_back(connected);
        if (m_changes.size() <= m_posted) {
            return;
        }
        ++m_posted;
    }
    post(*m_activeObject, [observer = weak_from_this(), connected] {
        if (const auto observe = observer.lock()) {
            observe->tellChange();
        } else {
            KESA_TRACE_TEXT(BACKENDS_CHANNEL, 2,
                            fmt::format("{}: MyClientConnectionListener already dead", nameOf(connected)));
        }
    });
}

void BackendList::MyClientConnectionListener::tellChange()
{
    bool connected = false;
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        --m_posted;
        if (m_changes.empty()) {
            return;
        }
        connected = m_changes.front();
        m_changes.pop_front();
    }
    connectionStateChanged(connected);
}

void BackendList::MyClientConnectionListener::connectionStateChanged(bool connected)
{
    KESA_TRACE_TEXT(BACKENDS_CHANNEL, 2, fmt::format("{}: '{}'", nameOf(connected), m_locator.toString()));
    m_connected = connected;
    if (!m_api) {
        obr::GlobalErrorHandler::doAssert(false, "observe->m_api != nullptr", __FILE__, __LINE__, "operator()",
                                          "API is not set");
        return;
    }
    const ProxyState state = connected ? ProxyState(m_api) : nullopt;
    tellHandlers([&state](ProxyHandler& handler) { handler.onNext(state); });
}

void BackendList::MyClientConnectionListener::connectionFailed(unsigned short code, const std::string& message)
{
    KESA_TRACE_TEXT(BACKENDS_CHANNEL, 3,
                    fmt::format("clientError on '{}': {} '{}'", m_locator.toString(), code, message));
    m_connected = false;
    m_lastError = Response::createErrorResponse(code, message);
    tellHandlers([this](ProxyHandler& handler) { handler.onError(*m_lastError); });
}

void BackendList::MyClientConnectionListener::addResponseHandler(std::unique_ptr<ProxyHandler>&& handler)
{
    notTelling();
    const void* const handle = handler.get();
    if (m_connected) {
        handler->onNext(ProxyState(m_api));
    }
    if (m_lastError) {
        handler->onError(*m_lastError);
    }
    m_handlers.push_back(std::move(handler));
    KESA_TRACE(BACKENDS_CHANNEL, 2, "[addResponseHandler] add handle='%p'", handle);
}

void BackendList::MyClientConnectionListener::eraseResponseHandler(const void* handle)
{
    notTelling();
    const auto found = std::find_if(m_handlers.begin(), m_handlers.end(),
                                    [handle](const auto& handler) { return handler.get() == handle; });
    if (found == m_handlers.end()) {
        KESA_TRACE(BACKENDS_CHANNEL, 2, "[eraseResponseHandler] can not find handle='%p'", handle);
        return;
    }
    KESA_TRACE(BACKENDS_CHANNEL, 2, "[eraseResponseHandler] erase handle='%p'", handle);
    const std::unique_ptr<ProxyHandler> leaving = std::move(*found);
    m_handlers.erase(found);
}

bool BackendList::MyClientConnectionListener::hasResponseHandler(const void* handle) const
{
    return std::any_of(m_handlers.begin(), m_handlers.end(),
                       [handle](const auto& handler) { return handler.get() == handle; });
}

template <class Call>
void BackendList::MyClientConnectionListener::tellHandlers(const Call& call)
{
    m_isTelling = true;
    for (const auto& handler : m_handlers) {
        call(*handler);
    }
    m_isTelling = false;
}

void BackendList::MyClientConnectionListener::notTelling() const
{
    if (m_isTelling) {
        obr::GlobalErrorHandler::doAssert(false, "!m_isTelling", __FILE__, __LINE__, __func__,
                                          "a handler changed the list it is called from");
    }
}

} // namespace kesa::runtime::v02
