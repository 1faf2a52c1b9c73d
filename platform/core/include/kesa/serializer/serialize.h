#ifndef KESA_SERIALIZER_SERIALIZE_H
#define KESA_SERIALIZER_SERIALIZE_H

#include <kesa/Path.h>
#include <kesa/url.h>
#include <obr/UUID.h>
#include <util/config/Dictionary.h>
#include <util/serializer/IStructuredPullDeserializer.h>
#include <util/serializer/IStructuredSerializer.h>

#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>

/// Writing and reading of single values. Each answers `true` on failure, with a reason in `obr::ErrorStorage`, and
/// leaves what it reads into alone then.
namespace kesa::serializer {

using util::serializer::IStructuredPullDeserializer;
using util::serializer::IStructuredSerializer;

[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const std::string& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const Path& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const url& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const obr::UUID& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const util::config::Value& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const util::config::Dictionary& value);
/// Pointers, so literals, and enumerators that are numbers would be taken for a `bool`.
template <class T>
bool serialize(IStructuredSerializer& out, T* value) = delete;
template <class T, std::enable_if_t<std::is_enum_v<T> && std::is_convertible_v<T, int>, int> = 0>
bool serialize(IStructuredSerializer& out, T value) = delete;

[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, std::string& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, bool& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, Path& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, url& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, obr::UUID& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, util::config::Value& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, util::config::Dictionary& value);

/// Fails for what is no number from `least` to `most`.
[[nodiscard]] KESA_API bool readNumber(IStructuredPullDeserializer& in, std::int64_t& value, std::int64_t least,
                                       std::int64_t most);
[[nodiscard]] KESA_API bool readNumber(IStructuredPullDeserializer& in, std::uint64_t& value, std::uint64_t least,
                                       std::uint64_t most);
/// Integers are numbers, too.
[[nodiscard]] KESA_API bool readNumber(IStructuredPullDeserializer& in, double& value, double least, double most);

template <class T>
using EnableForNumbers = std::enable_if_t<std::is_arithmetic_v<T> && !std::is_same_v<T, bool>, int>;

/// Of exactly these types: what only converts to a number or a `bool` does not compile.
template <class T, EnableForNumbers<T> = 0>
[[nodiscard]] bool serialize(IStructuredSerializer& out, T value)
{
    return serialize(out, util::config::Value(value));
}

template <class T, std::enable_if_t<std::is_same_v<T, bool>, int> = 0>
[[nodiscard]] bool serialize(IStructuredSerializer& out, T value)
{
    return out.boolValue(value);
}

template <class T, EnableForNumbers<T> = 0>
[[nodiscard]] bool deserialize(IStructuredPullDeserializer& in, T& value)
{
    using Integer = std::conditional_t<std::is_signed_v<T>, std::int64_t, std::uint64_t>;
    using Widest = std::conditional_t<std::is_floating_point_v<T>, double, Integer>;
    Widest read{};
    if (readNumber(in, read, std::numeric_limits<T>::lowest(), std::numeric_limits<T>::max())) {
        return true;
    }
    value = static_cast<T>(read);
    return false;
}

} // namespace kesa::serializer

#endif
