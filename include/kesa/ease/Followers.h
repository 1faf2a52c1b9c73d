#ifndef KESA_EASE_FOLLOWERS_H
#define KESA_EASE_FOLLOWERS_H

#include <kesa/Payload.h>
#include <kesa/Request.h>
#include <kesa/core/PayloadConversion.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/optional.h>
#include <obr/ErrorStorage.h>
#include <util/config/Value.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace kesa {

/// What `Topic` and `Property` are made of: the last value, in any format, and who follows. Any thread.
class KESA_API Followers {
public:
    /// A value in a format; nothing, with a reason in `obr::ErrorStorage`, when it has no form in that.
    using Encode = std::function<optional<Payload>(const std::string& mimeType)>;

    /// Sends a value to all who follow, and to who comes later. Not from inside the handler of one of them.
    void publish(Encode value);
    /// How many follow, as far as the last value has shown.
    std::size_t count() const;
    /// Who asks for a persistent stream gets the last value, if there is one, and each that follows. Who does not gets
    /// the last one: 404 when there is none.
    void answer(const Request& request, const Responder& responder);
    /// Tells all who follow, and who comes later, 503.
    void end();

private:
    struct Follower {
        Responder responder;
        std::string mimeType;
    };
    /// True when it follows no longer.
    static bool send(const Follower& follower, const optional<Payload>& payload);
    void add(Follower&& follower);

    mutable std::mutex m_mutex;
    Encode m_last;                     ///< under `m_mutex`
    std::vector<Follower> m_followers; ///< under `m_mutex`
    std::size_t m_swept = 0;           ///< so many are kept before those that have left go; under `m_mutex`
    bool m_hasEnded = false;           ///< under `m_mutex`
};

namespace detail {

template <class T>
inline constexpr bool IS_NUMBER = std::is_arithmetic_v<T> && !std::is_same_v<T, bool>;

/// Numbers have no `serialize` of their own.
template <class T>
optional<Payload> encode(const T& value, const std::string& mimeType)
{
    obr::ErrorStorage::ack();
    if constexpr (IS_NUMBER<T>) {
        return serializer::toPayload(util::config::Value(value), mimeType);
    } else {
        return serializer::toPayload(value, mimeType);
    }
}

/// True on failure.
template <class T>
[[nodiscard]] bool decode(const Payload& payload, T& value)
{
    bool failed = false;
    if constexpr (IS_NUMBER<T>) {
        util::config::Value read;
        failed = serializer::readPayload(payload, read) || read.get(value);
    } else {
        failed = serializer::readPayload(payload, value);
    }
    obr::ErrorStorage::ack();
    return failed;
}

template <class T>
Followers::Encode encoder(std::shared_ptr<const T> value)
{
    return [value = std::move(value)](const std::string& mimeType) { return encode(*value, mimeType); };
}

} // namespace detail

} // namespace kesa

#endif
