#include <kesa/ease/Followers.h>

#include <kesa/headers.h>
#include <kesa/responsesemantics.h>
#include <kesa/servicecomp.h>
#include <tracing/Channel.h>

#include <algorithm>
#include <utility>

namespace kesa {

namespace {

constexpr const char* VALUE_ENDED = "the value has ended";

const ::tracing::Channel& easeChannel()
{
    static const ::tracing::Channel channel("KESA_EASE");
    return channel;
}

void traceLeftOut(const std::string& mimeType)
{
    const ::tracing::Channel& channel = easeChannel();
    KESA_TRACE(channel, 3, "[publish] a value is left out for those who follow as '%s': %s", mimeType.c_str(),
               obr::ErrorStorage::reason().c_str());
    obr::ErrorStorage::ack();
}

} // namespace

void Followers::publish(Encode value)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const Forms forms = formsOf(value); // first, since it may throw
    m_last = std::move(value);
    for (Follower& follower : m_followers) {
        const optional<Payload>& form = forms.find(follower.mimeType)->second;
        follower.hasLeft = form && follower.responder.next(*form);
    }
    m_followers.erase(std::remove_if(m_followers.begin(), m_followers.end(),
                                     [](const Follower& follower) { return follower.hasLeft; }),
                      m_followers.end());
}

/// `value` in the formats of those who follow.
Followers::Forms Followers::formsOf(const Encode& value) const
{
    Forms forms;
    for (const Follower& follower : m_followers) {
        if (forms.find(follower.mimeType) == forms.end()) {
            const auto made = forms.emplace(follower.mimeType, value(follower.mimeType)).first;
            if (!made->second) {
                traceLeftOut(follower.mimeType);
            }
        }
    }
    return forms;
}

std::size_t Followers::count() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_followers.size();
}

void Followers::answer(const Request& request, const Responder& responder)
{
    Follower follower{responder, servicecomp::mimeTypeFor(request)};
    const bool isFollowing =
        request.getHeader(headers::RESPONSE_SEMANTIC).stringView() == responsesemantics::PERSISTENT_STREAM;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_hasEnded) {
        const RequestError error = ended(request);
        responder.fail(error.status(), error.what());
        return;
    }
    if (!m_last && !isFollowing) {
        responder.fail(404, "there is no value yet");
        return;
    }
    const optional<Payload> last = m_last ? m_last(follower.mimeType) : optional<Payload>();
    if (!last && !isFollowing) {
        responder.fail(500, obr::ErrorStorage::reason());
        return;
    }
    if (!last && m_last) {
        traceLeftOut(follower.mimeType);
    }
    const bool hasLeft = last && responder.next(*last);
    if (!isFollowing) {
        responder.complete();
    } else if (!hasLeft) {
        add(std::move(follower));
    }
}

/// Without a new value nothing shows who has left, so when there are twice as many as stayed the last time, each is
/// asked.
void Followers::add(Follower&& follower)
{
    if (m_followers.size() >= m_swept) {
        m_followers.erase(std::remove_if(m_followers.begin(), m_followers.end(),
                                         [](const Follower& other) { return other.responder.isCancelled(); }),
                          m_followers.end());
        constexpr std::size_t FEW = 16;
        m_swept = std::max(2 * m_followers.size(), FEW);
    }
    m_followers.push_back(std::move(follower));
}

void Followers::end()
{
    std::vector<Follower> followers;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_hasEnded = true;
        m_last = nullptr;
        followers.swap(m_followers);
    }
    for (const Follower& follower : followers) {
        follower.responder.fail(503, VALUE_ENDED);
    }
}

RequestError Followers::ended(const Request& request)
{
    if (!m_isEndTraced.exchange(true)) {
        KESA_TRACE(
            easeChannel(), 3,
            "[answer] '%s %s' asks for a value whose kesa::Topic or kesa::Property is gone: this and each further "
            "such request is answered 503; declare it before the kesa::Runtime, or end the registration of its "
            "service before it",
            request.getCommand().c_str(), request.getPath().c_str());
    }
    return {503, VALUE_ENDED};
}

} // namespace kesa
