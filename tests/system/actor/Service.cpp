#include "Service.h"

#include <kesa/mimetypes.h>

#include <string>

namespace {

kesa::Payload text(std::string content)
{
    return kesa::Payload::createFromString(std::move(content), kesa::mimetypes::TEXT);
}

} // namespace

Service::Service() : m_api(std::make_shared<kesa::ResourceHandler>())
{
    m_api->onRetrieve("/echo", [](const kesa::Request& request, kesa::Responder responder) {
        responder.answer(request.getPayload());
    });
    m_api->onRetrieve("/hang", [this](const kesa::Request&, kesa::Responder responder) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_hanging.push_back(std::move(responder));
    });
    m_api->onRetrieve("/feed", [this](const kesa::Request&, kesa::Responder responder) {
        static_cast<void>(responder.next(text("0")));
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_followers.push_back(std::move(responder));
    });
}

Service::Fed Service::feed(std::size_t bytes)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::string content = std::to_string(++m_fed) + ' ';
    content.resize(std::max(bytes, content.size()), '.');
    const kesa::Payload payload = text(std::move(content));
    Fed fed;
    std::vector<kesa::Responder> staying;
    for (kesa::Responder& follower : m_followers) {
        if (follower.next(payload)) {
            ++fed.refused;
        } else {
            ++fed.taken;
            staying.push_back(std::move(follower));
        }
    }
    m_followers = std::move(staying);
    return fed;
}
