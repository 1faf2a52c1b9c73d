#ifndef KESA_TESTS_ACTOR_SERVICE_H
#define KESA_TESTS_ACTOR_SERVICE_H

#include <kesa/ease/ResourceHandler.h>
#include <kesa/mimetypes.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kesa::actor {

/// What an actor provides: "/echo" answers each command at once, "/hang" never, "/feed" with 0 at once and then with
/// what `feed` says.
class Service {
public:
    Service()
    {
        for (const std::string_view command :
             {commands::RETRIEVE, commands::UPDATE, commands::DELETE, commands::INSERT}) {
            m_api->add(command, "/echo", [](const Request& request, const PathParameters&, const Responder& responder) {
                responder.answer(request.getPayload());
            });
        }
        m_api->onRetrieve("/hang", [this](const Request&, Responder responder) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_hanging.size() >= 2 * m_mayHang) {
                m_hanging.erase(std::remove_if(m_hanging.begin(), m_hanging.end(),
                                               [](const Responder& each) { return each.isCancelled(); }),
                                m_hanging.end());
                m_mayHang = std::max<std::size_t>(m_hanging.size(), 512);
            }
            m_hanging.push_back(std::move(responder));
        });
        m_api->onRetrieve("/feed", [this](const Request&, Responder responder) {
            static_cast<void>(responder.next(text("0")));
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_followers.push_back(std::move(responder));
        });
    }

    std::shared_ptr<IKesaApi> api() const { return m_api; }
    /// Who may ask what of it.
    void allow(const std::string& rules) { m_api->allow(rules); }

    /// Sends the next number to each that follows, filled up to `bytes`. Who refuses it follows no longer. How many
    /// took it, and how many refused it.
    std::pair<std::size_t, std::size_t> feed(std::size_t bytes)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::string content = std::to_string(++m_fed) + ' ';
        content.resize(std::max(bytes, content.size()), '.');
        const Payload payload = text(std::move(content));
        const std::size_t before = m_followers.size();
        m_followers.erase(std::remove_if(m_followers.begin(), m_followers.end(),
                                         [&payload](Responder& follower) { return follower.next(payload); }),
                          m_followers.end());
        return {m_followers.size(), before - m_followers.size()};
    }

private:
    static Payload text(std::string content) { return Payload::createFromString(std::move(content), mimetypes::TEXT); }

    const std::shared_ptr<ResourceHandler> m_api = std::make_shared<ResourceHandler>();
    std::mutex m_mutex;
    std::vector<Responder> m_followers; ///< under `m_mutex`
    std::vector<Responder> m_hanging;   ///< under `m_mutex`; cancelled ones among them
    std::size_t m_mayHang = 512;        ///< under `m_mutex`; left by the last sweep
    std::size_t m_fed = 0;              ///< under `m_mutex`
};

} // namespace kesa::actor

#endif
