#ifndef KESA_SERIALIZER_SERIALIZE_H
#define KESA_SERIALIZER_SERIALIZE_H

#include <kesa/Path.h>
#include <kesa/url.h>
#include <obr/UUID.h>
#include <util/config/Dictionary.h>
#include <util/serializer/IStructuredPullDeserializer.h>
#include <util/serializer/IStructuredSerializer.h>

#include <string>

/// Writing and reading of single values. Each answers `true` on failure, with a reason in `obr::ErrorStorage`, and
/// leaves what it reads into alone then.
namespace kesa::serializer {

using util::serializer::IStructuredPullDeserializer;
using util::serializer::IStructuredSerializer;

[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const std::string& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, bool value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const Path& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const url& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const obr::UUID& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const util::config::Value& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const util::config::Dictionary& value);
/// A literal would be taken for a `bool`.
bool serialize(IStructuredSerializer& out, const char* value) = delete;

[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, std::string& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, bool& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, Path& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, url& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, obr::UUID& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, util::config::Value& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, util::config::Dictionary& value);

} // namespace kesa::serializer

#endif
