// A stream that ends with 503 is asked for again, whatever has ended it. The 503 of a lost connection comes before the
// news of the loss, so it cannot be told from one of a service that is still connected: "too slow", or its own. Asking
// again can: without a connection it fails, and the next connection asks anyway. A pause keeps a service that ends each
// stream from being asked as fast as it can answer. After it is known whether the connection is lost, so that a stream
// has ended is traced then: each that has brought values, and the first of those in a row that have not.
//
// A client object tells such an error on its I/O loop, whose timer is the pause's. Off a loop it comes of the runtime's
// end or of a client object that has been let go: nobody is left to be asked.
#include "Follow.h"

#include <comm/Reactor.h>
#include <comm/onAnyLoop.h>
#include <fmt/format.h>
#include <kesa/reasonOf.h>
#include <tracing/Channel.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace kesa {

namespace {

constexpr comm::TimeNs FIRST_PAUSE = 10 * comm::MILLISECOND;
constexpr comm::TimeNs LONGEST_PAUSE = comm::SECOND;

} // namespace

/// Of one stream: of those before the last nothing counts any more.
class Follow::Handler final : public IResponseHandler<Response> {
public:
    Handler(std::shared_ptr<Follow> follow, unsigned number) : m_follow(std::move(follow)), m_number(number) {}
    bool onNext(const Response& response) override { return m_follow->onNext(m_number, response); }
    void onError(const Response& error) override { m_follow->onError(m_number, error); }
    void onCompleted() override { m_follow->onCompleted(m_number); }

private:
    const std::shared_ptr<Follow> m_follow;
    const unsigned m_number;
};

Follow::Follow(std::string service, Request request, std::shared_ptr<OpenRequest> client,
               std::shared_ptr<detail::LoopRoom> room, std::shared_ptr<const runtime::v02::IReasons> reasons)
    : m_service(std::move(service)), m_request(std::move(request)), m_client(std::move(client)),
      m_room(std::move(room)), m_reasons(std::move(reasons))
{
    if (m_room) {
        m_room->askedAgain();
    }
}

bool Follow::isOver() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_isOver;
}

void Follow::connected(const std::shared_ptr<IKesaApi>& api, unsigned connection)
{
    unsigned number = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_isOver || connection <= m_connection) {
            return;
        }
        m_connection = connection;
        m_pause = 0;
        m_asked = {api, IKesaApi::UNDEFINED_REQUEST_HANDLE};
        number = begin();
    }
    ask(api, number);
}

Asked Follow::lost(unsigned connection)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_connection = connection;
    ++m_number;
    return std::exchange(m_asked, Asked());
}

void Follow::end()
{
    const Asked asked = finish();
    m_client->withdraw();
    asked.cancel();
}

void Follow::end(const Response& error)
{
    const Asked asked = finish();
    m_client->withdraw(error);
    asked.cancel();
}

Asked Follow::finish()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isOver = true;
    ++m_number;
    return std::exchange(m_asked, Asked());
}

/// A new stream; with the lock held.
unsigned Follow::begin()
{
    m_since = comm::now();
    m_hasValue = false;
    return ++m_number;
}

void Follow::ask(const std::shared_ptr<IKesaApi>& api, unsigned number)
{
    void* const handle = api->request(m_request, std::make_unique<Handler>(shared_from_this(), number));
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_number == number) {
            m_asked.handle = handle;
            return;
        }
    }
    Asked{api, handle}.cancel(); // lost, ended or over meanwhile
}

bool Follow::onNext(unsigned number, const Response& response)
{
    bool isFirst = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_number != number) {
            return true;
        }
        isFirst = !std::exchange(m_hasValue, true);
    }
    const bool isRefused = m_client->onNext(response);
    if (isRefused && m_room && m_room->isFull()) {
        cut(number, isFirst);
    } else if (isRefused && m_room && m_room->hasLoopEnded()) {
        letGo();
    }
    return isRefused;
}

/// Inside a call of the stream, whose handler is called no more.
void Follow::letGo()
{
    static const ::tracing::Channel channel("KESA_EASE");
    const auto self = shared_from_this(); // the cancel may destroy who calls us
    KESA_TRACE_TEXT(channel, 3,
                    fmt::format("[follow] '{}': the loop that was given to kesa::on for '{} {}' has ended, so that is "
                                "followed no longer",
                                m_service, m_request.getCommand(), m_request.getPath()));
    end();
}

/// Inside a call of the stream, whose handler takes its values too slowly.
void Follow::cut(unsigned number, bool isFirst)
{
    const auto self = shared_from_this(); // the cancel may destroy who calls us
    Asked asked;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_number != number) {
            return;
        }
        asked = m_asked;
        m_hasValue = !isFirst;
    }
    tellTooSlow(m_room->loop());
    askLater(number, m_room->tooSlow());
    asked.cancel();
}

void Follow::tellTooSlow(const std::string& loop) const
{
    if (m_reasons && !m_service.empty()) {
        m_reasons->tellTooSlow(m_service, loop);
    }
}

/// False when that stream does not count any more.
bool Follow::endsWith(unsigned number)
{
    Asked asked; // dies without the lock
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_number != number) {
        return false;
    }
    m_isOver = true;
    ++m_number;
    asked = std::exchange(m_asked, Asked());
    return true;
}

void Follow::onError(unsigned number, const Response& error)
{
    if (error.getStatus() == 503) {
        if (error.getErrorMessage() == detail::TOO_SLOW) {
            tellTooSlow(m_room ? m_room->loop() : std::string());
        }
        askLater(number, error);
    } else if (endsWith(number)) {
        m_client->onError(error);
    }
}

void Follow::askLater(unsigned number, const Response& error)
{
    comm::TimeNs due = comm::now();
    std::string why; // empty: it has been said
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_number != number) {
            return;
        }
        const bool hasLasted = m_hasValue && due - m_since > m_pause;
        m_pause = hasLasted ? FIRST_PAUSE : std::clamp(2 * m_pause, FIRST_PAUSE, LONGEST_PAUSE);
        m_asked.handle = IKesaApi::UNDEFINED_REQUEST_HANDLE;
        number = ++m_number;
        due += m_pause;
        why = m_hasValue || m_pause == FIRST_PAUSE ? reasonOf(error) : "";
    }
    if (const comm::LoopInfo* const loop = comm::currentLoop(); loop != nullptr && loop->isReactor()) {
        loop->reactor->startTimer(due, [weak = weak_from_this(), number, why = std::move(why)] {
            if (const auto follow = weak.lock()) {
                follow->askAgain(number, why);
            }
        });
    }
}

void Follow::askAgain(unsigned number, const std::string& why)
{
    std::shared_ptr<IKesaApi> api;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_number != number) {
            return;
        }
        api = m_asked.api;
        number = begin();
    }
    ask(api, number);
    std::optional<std::string> end;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const bool hasBegun = m_number == number; // else it has failed at once: the connection is lost
        if (hasBegun && !why.empty() && !m_service.empty()) {
            end = m_traces.pass(comm::now());
        }
    }
    if (end) {
        static const ::tracing::Channel channel("KESA_EASE");
        KESA_TRACE_TEXT(channel, 3,
                        fmt::format("[follow] '{}': the stream of '{} {}' has ended and is asked for again, so values "
                                    "may be missing: {}{}",
                                    m_service, m_request.getCommand(), m_request.getPath(), why, *end));
    }
}

void Follow::onCompleted(unsigned number)
{
    if (endsWith(number)) {
        m_client->onCompleted();
    }
}

} // namespace kesa
