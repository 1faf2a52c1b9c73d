#ifndef KESA_SERVICEREGISTRY_QUERY_H
#define KESA_SERVICEREGISTRY_QUERY_H

#include <kesa/GenericObject.h>
#include <kesa/optional.h>
#include <util/serializer/IStructuredPullDeserializer.h>
#include <util/serializer/IStructuredSerializer.h>

#include <string>

namespace kesa::serviceregistry {

/// Selects services.
class KESA_API Query {
public:
    Query() = default;
    explicit Query(std::string pathPattern);
    Query(std::string pathPattern, optional<GenericObject> data, optional<bool> withMetadata,
          optional<std::string> scopeName);

    std::string pattern; ///< a glob over paths, see `kesa::PathPatterns`; "" and "**" match all
    /// What a service must carry: per key one string or an array of accepted strings. "type" and "id" are compared
    /// with those fields, "locators" (as a set) with the locators, every other key with the metainfo.
    optional<GenericObject> metadata;
    optional<bool> includeMetadata; ///< whether metainfo is wanted; ours sends it always, see `IServiceRegistry`
    optional<std::string> scope;    ///< matches services that list it, and services without a scope

    KESA_API friend bool operator==(const Query& a, const Query& b);

    [[nodiscard]] bool serialize(util::serializer::IStructuredSerializer& out) const;
    [[nodiscard]] bool deserialize(util::serializer::IStructuredPullDeserializer& in);
};

} // namespace kesa::serviceregistry

#endif
