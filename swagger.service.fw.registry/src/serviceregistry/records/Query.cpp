#include "RecordReader.h"
#include "RecordWriter.h"

#include <kesa/serviceregistry/Query.h>

namespace kesa::serviceregistry {
namespace {

constexpr std::string_view QUERY_WORDS[] = {"Pattern "};

} // namespace

Query::Query(std::string pathPattern) : pattern(std::move(pathPattern)) {}

Query::Query(std::string pathPattern, optional<GenericObject> data, optional<bool> withMetadata,
             optional<std::string> scopeName)
    : pattern(std::move(pathPattern)), metadata(std::move(data)), includeMetadata(withMetadata),
      scope(std::move(scopeName))
{}

bool operator==(const Query& a, const Query& b)
{
    return a.pattern == b.pattern && a.metadata == b.metadata && a.includeMetadata == b.includeMetadata &&
           a.scope == b.scope;
}

bool Query::serialize(util::serializer::IStructuredSerializer& out) const
{
    return out.beginObject() || writeMember(out, "pattern", pattern) || writeMember(out, "metadata", metadata) ||
           writeMember(out, "includeMetadata", includeMetadata) || writeMember(out, "scope", scope) || out.endObject();
}

bool Query::deserialize(util::serializer::IStructuredPullDeserializer& in)
{
    RequiredMembers required("Query", QUERY_WORDS);
    const bool failed = readObject(in, [&](std::string_view name) {
        if (name == "pattern") {
            required.found(0);
            return readValue(in, pattern);
        }
        return name == "metadata"          ? readOptional(in, metadata)
               : name == "includeMetadata" ? readOptional(in, includeMetadata)
               : name == "scope"           ? readOptional(in, scope)
                                           : in.skipValue();
    });
    return failed || required.check();
}

} // namespace kesa::serviceregistry
