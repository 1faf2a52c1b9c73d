#ifndef KESA_EASE_BODY_H
#define KESA_EASE_BODY_H

#include <kesa/Payload.h>
#include <kesa/Request.h>
#include <kesa/Response.h>
#include <kesa/core/PayloadConversion.h>
#include <kesa/mimetypes.h>

#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

/// The bodies of requests and answers as values, for every type that PayloadConversion.h knows:
///
///     const kesa::Request request("update", "/volume", kesa::asPayload(7));
///     const int volume = kesa::body<int>(request);
namespace kesa {

namespace detail {

[[noreturn]] KESA_API void refuseBody(const Request& request);
[[noreturn]] KESA_API void refuseBody(const Response& answer);
[[noreturn]] KESA_API void refuseValue(std::string_view mimeName);

template <class T, class Message>
T readBody(const Message& message)
{
    constexpr bool CAN_READ = serializer::CAN_READ<T>;
    static_assert(CAN_READ, "kesa::body<T> is for a T that has a `deserialize`; see kesa/core/PayloadConversion.h");
    if constexpr (std::is_same_v<T, std::string>) {
        if (message.getPayload().getMimeType() == mimetypes::TEXT) {
            return std::string(message.getPayload().text());
        }
    }
    T value{};
    if constexpr (CAN_READ) {
        if (serializer::readPayload(message.getPayload(), value)) {
            refuseBody(message);
        }
    }
    return value;
}

} // namespace detail

/// What the body of a request says; a `std::string` may be plain text, too. Throws `RequestError`, 400 with the reason,
/// when it is no such value: a route's function may leave that to its caller.
template <class T>
[[nodiscard]] T body(const Request& request)
{
    return detail::readBody<T>(request);
}

/// What an answer says. Throws `std::runtime_error` with the reason when it is no such value.
template <class T>
[[nodiscard]] T body(const Response& answer)
{
    return detail::readBody<T>(answer);
}

/// A body that says `value`; a text is a JSON string, for plain text see asText.h. Throws `std::runtime_error` when it
/// has no form in that format: a text that is no UTF-8, an undefined `Value`, a format that is unknown.
template <class T>
[[nodiscard]] Payload asPayload(const T& value, std::string_view mimeName = mimetypes::JSON)
{
    if constexpr (std::is_convertible_v<const T&, std::string_view> && !std::is_same_v<T, std::string>) {
        return asPayload(std::string(static_cast<std::string_view>(value)), mimeName);
    } else {
        constexpr bool CAN_WRITE = serializer::CAN_WRITE<T>;
        static_assert(CAN_WRITE, "kesa::asPayload takes what has a `serialize`; see kesa/core/PayloadConversion.h");
        if constexpr (CAN_WRITE) {
            obr::ErrorStorage::ack();
            if (auto payload = serializer::toPayload(value, mimeName)) {
                return std::move(*payload);
            }
        }
        detail::refuseValue(mimeName);
    }
}

} // namespace kesa

#endif
