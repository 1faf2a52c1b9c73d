#ifndef KESA_CORE_PAYLOADCONVERSION_H
#define KESA_CORE_PAYLOADCONVERSION_H

#include <kesa/core/Serializer.h>
#include <obr/ErrorOutput.h>
#include <obr/ErrorStorage.h>

#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>

/// From a value to a payload and back, for every type that has a `serialize` and a `deserialize`, here or beside
/// itself: numbers, `bool`, `std::string`, `GenericObject`, `Value`, the records.
///
///     const auto payload = kesa::serializer::toPayload(serviceDef, kesa::mimetypes::JSON);
///     const auto copy = kesa::serializer::fromPayload<ServiceDef>(*payload, "ServiceDef");
///
/// What fails leaves its reason in `obr::ErrorStorage`.
namespace kesa::serializer {

/// Null, with a reason, for a format that has no structure or is unknown.
KESA_API std::unique_ptr<IStructuredSerializer> createSerializerFor(std::string_view mimeName);
KESA_API std::unique_ptr<IStructuredPullDeserializer> createDeserializerFor(const Payload& payload);

namespace detail {

template <class T, class = void>
struct CanWrite : std::false_type {};
template <class T>
struct CanWrite<T, std::void_t<decltype(serialize(std::declval<IStructuredSerializer&>(), std::declval<const T&>()))>>
    : std::true_type {};

template <class T, class = void>
struct CanRead : std::false_type {};
template <class T>
struct CanRead<T, std::void_t<decltype(deserialize(std::declval<IStructuredPullDeserializer&>(), std::declval<T&>()))>>
    : std::is_default_constructible<T> {};

} // namespace detail

/// Whether `toPayload` takes a `T`, and `fromPayload` makes one.
template <class T>
inline constexpr bool CAN_WRITE = detail::CanWrite<T>::value;
template <class T>
inline constexpr bool CAN_READ = detail::CanRead<T>::value;

/// Writes with a serializer of the format `mimeName` that the caller keeps for many values; it is reset before and
/// after. A value without content gives the empty payload.
template <class T>
[[nodiscard]] optional<Payload> toPayload(IStructuredSerializer& out, const T& value, std::string_view mimeName)
{
    util::ByteBufferWriter writer(1024);
    bool hasContent = false;
    out.reset();
    const bool failed = out.attach(writer) || serialize(out, value) || out.finish(hasContent);
    out.reset();
    if (failed) {
        return nullopt;
    }
    return hasContent ? Payload::createFromWriter(std::move(writer), mimeName) : Payload::getEmpty();
}

template <class T>
[[nodiscard]] optional<Payload> toPayload(const T& value, std::string_view mimeName)
{
    const auto out = createSerializerFor(mimeName);
    return out ? toPayload(*out, value, mimeName) : nullopt;
}

/// Reads the whole payload; bytes after the value are a failure. `in` comes from `createDeserializerFor`. Forgets an
/// older error first: with one pending no record can be read.
template <class T>
[[nodiscard]] bool readPayload(IStructuredPullDeserializer& in, const Payload& payload, T& value)
{
    obr::ErrorStorage::ack();
    util::ByteBufferReader reader(payload.data(), payload.size(), false);
    return in.attach(reader) || deserialize(in, value) || in.finish();
}

/// The same with the reader's own reason: an unknown format, a missing member, a syntax error.
template <class T>
[[nodiscard]] bool readPayload(const Payload& payload, T& value)
{
    const auto in = createDeserializerFor(payload);
    return !in || readPayload(*in, payload, value);
}

/// The value, for which the payload must be of a known format (error 16) and readable (error 11 with `typeName`).
template <class T>
[[nodiscard]] optional<T> fromPayload(const Payload& payload, std::string_view typeName)
{
    const auto in = createDeserializerFor(payload);
    if (!in) {
        return nullopt;
    }
    optional<T> value(std::in_place);
    if (readPayload(*in, payload, *value)) {
        obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 11, typeName);
        value.reset();
    }
    return value;
}

} // namespace kesa::serializer

#endif
