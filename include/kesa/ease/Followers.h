#ifndef KESA_EASE_FOLLOWERS_H
#define KESA_EASE_FOLLOWERS_H

#include <kesa/Payload.h>
#include <kesa/Request.h>
#include <kesa/core/PayloadConversion.h>
#include <kesa/ease/RequestError.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/optional.h>
#include <obr/ErrorStorage.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kesa {

/// What `Topic` and `Property` are made of: the last value, in any format, and who follows. Any thread.
class KESA_API Followers {
public:
    /// A value in a format; nothing, with a reason in `obr::ErrorStorage`, when it has no form in that.
    using Encode = std::function<optional<Payload>(const std::string& mimeType)>;

    /// Sends a value to all who follow, and to who comes later. Not from inside the handler of one of them. Those in
    /// whose format it has no form (a number that is not finite, a text that is no UTF-8) get the next one; that is
    /// traced (3). What `value` throws is passed on, and nobody has got it.
    void publish(Encode value);
    /// How many follow, as far as the last value has shown.
    std::size_t count() const;
    /// Who asks for a persistent stream gets the last value, if there is one, and each that follows. Who does not gets
    /// the last one: 404 when there is none.
    void answer(const Request& request, const Responder& responder);
    /// Tells all who follow, and who comes later, 503.
    void end();
    /// What `request` is told that comes later. The first time it is traced (3), with what to do.
    RequestError ended(const Request& request);

private:
    struct Follower {
        Responder responder;
        std::string mimeType;
        bool hasLeft = false;
    };
    using Forms = std::map<std::string, optional<Payload>>; ///< by the format
    Forms formsOf(const Encode& value) const;
    void add(Follower&& follower);

    mutable std::mutex m_mutex;        ///< values are published in any thread, followers come on that of the request
    Encode m_last;                     ///< under `m_mutex`
    std::vector<Follower> m_followers; ///< under `m_mutex`
    std::size_t m_swept = 0;           ///< so many are kept before those that have left go; under `m_mutex`
    bool m_hasEnded = false;           ///< under `m_mutex`
    std::atomic<bool> m_isEndTraced{false};
};

namespace detail {

template <class T>
Followers::Encode encoder(std::shared_ptr<const T> value)
{
    constexpr bool CAN_WRITE = serializer::CAN_WRITE<T>;
    static_assert(CAN_WRITE, "kesa::Topic<T> and kesa::Property<T> are for a T that has a `serialize`; see "
                             "kesa/core/PayloadConversion.h");
    return [value = std::move(value)]([[maybe_unused]] const std::string& mimeType) -> optional<Payload> {
        obr::ErrorStorage::ack();
        if constexpr (CAN_WRITE) {
            return serializer::toPayload(*value, mimeType);
        }
        return {};
    };
}

} // namespace detail

} // namespace kesa

#endif
