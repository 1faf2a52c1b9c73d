#ifndef KESA_EASE_TOPIC_H
#define KESA_EASE_TOPIC_H

#include <kesa/ease/Followers.h>

#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

namespace kesa {

/// Values that are sent to whoever follows:
///
///     kesa::Topic<double> load;
///     load.serve(*service, "/load");
///     load.publish(0.7);
///
/// `T` is a number, a `bool`, a text, a `GenericObject`, a `Value`, or has a `serialize`; see PayloadConversion.h.
/// "retrieve" answers the last value, 404 before the first one; who asks for a persistent stream gets the last value
/// and each one after it. A value that has no form in a follower's format, as a number that is not finite, is left out
/// for that follower and traced (3).
///
/// Any thread, but not from inside the handler of a follower in the same process. It may die before the service does:
/// its routes answer 503 then, which is traced (3) once.
template <class T>
class Topic {
public:
    Topic() = default;
    Topic(const Topic&) = delete;
    Topic& operator=(const Topic&) = delete;
    ~Topic() { m_followers->end(); }

    void publish(T value) { m_followers->publish(detail::encoder(std::make_shared<const T>(std::move(value)))); }
    /// How many follow, as far as the last value has shown.
    std::size_t followers() const { return m_followers->count(); }

    /// Adds its route, as a stream. Before the service is registered; any number of times.
    void serve(ResourceHandler& service, std::string_view route, RouteInfo info = {})
    {
        const auto answer = [followers = m_followers](const Request& request, const Responder& responder) {
            followers->answer(request, responder);
        };
        service.onRetrieve(route, answer, info.stream());
    }

private:
    const std::shared_ptr<Followers> m_followers = std::make_shared<Followers>();
};

} // namespace kesa

#endif
