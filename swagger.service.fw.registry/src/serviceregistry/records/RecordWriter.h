#ifndef KESA_SERVICEREGISTRY_RECORDS_RECORDWRITER_H
#define KESA_SERVICEREGISTRY_RECORDS_RECORDWRITER_H

#include <kesa/core/Serializer.h>

#include <string_view>
#include <vector>

/// How the records are written: members in the order of the fields, absent ones left out. True is failure.
namespace kesa::serviceregistry {

using serializer::IStructuredSerializer;

template <class T>
[[nodiscard]] bool writeValue(IStructuredSerializer& out, const T& value)
{
    return serializer::serialize(out, value);
}

template <class T>
[[nodiscard]] bool writeValue(IStructuredSerializer& out, const std::vector<T>& list)
{
    if (out.beginArray()) {
        return true;
    }
    for (const T& element : list) {
        if (out.beginElement() || serializer::serialize(out, element)) {
            return true;
        }
        out.endElement();
    }
    return out.endArray();
}

template <class T>
[[nodiscard]] bool writeMember(IStructuredSerializer& out, std::string_view name, const T& value)
{
    return out.memberName(name) || writeValue(out, value) || out.endMember();
}

template <class T>
[[nodiscard]] bool writeMember(IStructuredSerializer& out, std::string_view name, const optional<T>& value)
{
    return value && writeMember(out, name, *value);
}

} // namespace kesa::serviceregistry

#endif
