#include "Feed.h"

#include <kesa/core/PayloadConversion.h>
#include <kesa/headers.h>
#include <kesa/responsesemantics.h>
#include <kesa/servicecomp.h>

#include <algorithm>
#include <utility>

namespace examples {

namespace {

kesa::Payload encode(const kesa::GenericObject& sample, const std::string& mimeType)
{
    return kesa::serializer::toPayload(sample, mimeType).value_or(kesa::Payload());
}

} // namespace

Feed::Feed(std::string path, std::function<kesa::GenericObject()> read)
    : m_path(std::move(path)), m_read(std::move(read)), m_service(std::make_shared<kesa::ResourceHandler>()),
      m_latest(m_read())
{
    m_service->onRetrieve(
        "/", [this](const kesa::Request& request, kesa::Responder responder) { serve(request, std::move(responder)); });
}

void Feed::serve(const kesa::Request& request, kesa::Responder responder)
{
    const std::string mimeType = kesa::servicecomp::mimeTypeFor(request);
    const bool isFollowing = request.getHeaders()[kesa::headers::RESPONSE_SEMANTIC].stringView() ==
                             kesa::responsesemantics::PERSISTENT_STREAM;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!isFollowing) {
        responder.answer(encode(m_latest, mimeType));
        return;
    }
    static_cast<void>(responder.next(encode(m_latest, mimeType)));
    m_followers.push_back({std::move(responder), mimeType});
}

void Feed::sample()
{
    kesa::GenericObject sample = m_read();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_latest = std::move(sample);
    m_followers.erase(std::remove_if(m_followers.begin(), m_followers.end(),
                                     [this](const Follower& follower) {
                                         return follower.responder.next(encode(m_latest, follower.mimeType));
                                     }),
                      m_followers.end());
}

} // namespace examples
