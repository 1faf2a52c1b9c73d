#ifndef KESA_SERVICEREGISTRY_PROTOCOL_TRACKREQUEST_H
#define KESA_SERVICEREGISTRY_PROTOCOL_TRACKREQUEST_H

#include <serviceregistry/records/RecordReader.h>
#include <serviceregistry/records/RecordWriter.h>

namespace kesa::serviceregistry {

/// The body of a request that tracks one service: an object with at most one member.
struct TrackRequest {
    optional<bool> includeMetaInfo;
};

inline constexpr std::string_view INCLUDE_META_INFO = "includeMetaInfo";

[[nodiscard]] inline bool serialize(IStructuredSerializer& out, const TrackRequest& value)
{
    return out.beginObject() || writeMember(out, INCLUDE_META_INFO, value.includeMetaInfo) || out.endObject();
}

[[nodiscard]] inline bool deserialize(IStructuredPullDeserializer& in, TrackRequest& value)
{
    return readObject(in, [&](std::string_view name) {
        return name == INCLUDE_META_INFO ? readOptional(in, value.includeMetaInfo) : in.skipValue();
    });
}

} // namespace kesa::serviceregistry

#endif
