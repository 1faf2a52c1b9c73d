#ifndef KESA_CORE_SERIALIZER_H
#define KESA_CORE_SERIALIZER_H

#include <kesa/Payload.h>
#include <kesa/errors.h>
#include <kesa/mimetypes.h>
#include <kesa/optional.h>
#include <kesa/serializer/Factory.h>
#include <kesa/serializer/serialize.h>
#include <kesa/serviceregistry/MetainfoKeys.h>
#include <kesa/serviceregistry/Query.h>
#include <kesa/serviceregistry/RegistryUpdate.h>
#include <kesa/serviceregistry/ServiceDef.h>

#include <string_view>
#include <vector>

/// Writing and reading of the registry's records. Each answers `true` on failure, with the reason in
/// `obr::ErrorStorage`. Reading one record fails while an older error is pending: clear it first.
namespace kesa::serializer {

[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const serviceregistry::ServiceDef& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const serviceregistry::Query& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const serviceregistry::RegistryUpdate& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out,
                                      const std::vector<serviceregistry::RegistryUpdate>& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const serviceregistry::ServiceDef::TypeEnum& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out,
                                      const serviceregistry::RegistryUpdate::UpdateTypeEnum& value);
[[nodiscard]] KESA_API bool serialize(IStructuredSerializer& out, const serviceregistry::MetainfoKeys& value);

[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, serviceregistry::ServiceDef& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, serviceregistry::Query& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, serviceregistry::RegistryUpdate& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in,
                                        std::vector<serviceregistry::RegistryUpdate>& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, serviceregistry::ServiceDef::TypeEnum& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in,
                                        serviceregistry::RegistryUpdate::UpdateTypeEnum& value);
[[nodiscard]] KESA_API bool deserialize(IStructuredPullDeserializer& in, serviceregistry::MetainfoKeys& value);

} // namespace kesa::serializer

#endif
