#ifndef UTIL_TESTS_VALUEWALK_H
#define UTIL_TESTS_VALUEWALK_H

#include <obr/ErrorStorage.h>
#include <util/config/Dictionary.h>
#include <util/serializer/formats.h>

#include <string>
#include <utility>
#include <vector>

/// Whole values through the structured interfaces, for tests and fuzz targets. Each answers true on failure.
namespace util::serializer::test {

using config::Dictionary;
using config::Value;

[[nodiscard]] inline bool writeValue(IStructuredSerializer& out, const Value& value);

[[nodiscard]] inline bool writeArray(IStructuredSerializer& out, const Value& value)
{
    if (out.beginArray()) {
        return true;
    }
    for (const Value& item : value.items()) {
        if (out.beginElement() || writeValue(out, item) || out.endElement()) {
            return true;
        }
    }
    return out.endArray();
}

[[nodiscard]] inline bool writeObject(IStructuredSerializer& out, const Value& value)
{
    if (out.beginObject()) {
        return true;
    }
    for (const auto& [key, member] : value) {
        if (out.memberName(key) || writeValue(out, member) || out.endMember()) {
            return true;
        }
    }
    return out.endObject();
}

[[nodiscard]] inline bool writeValue(IStructuredSerializer& out, const Value& value)
{
    bool flag = false;
    std::int64_t integer = 0;
    std::uint64_t large = 0;
    double real = 0;
    if (value.isArray()) {
        return writeArray(out, value);
    }
    if (value.isDictionary()) {
        return writeObject(out, value);
    }
    if (value.isString()) {
        return out.stringValue(value.stringView());
    }
    if (!value.get(flag)) {
        return out.boolValue(flag);
    }
    if (!value.get(integer)) {
        return out.intValue(integer);
    }
    if (!value.get(large)) {
        return out.uintValue(large);
    }
    return value.get(real) ? out.nullValue() : out.doubleValue(real);
}

[[nodiscard]] inline bool readValue(IStructuredPullDeserializer& in, Value& value);

[[nodiscard]] inline bool readArray(IStructuredPullDeserializer& in, Value& value)
{
    Value::Array items;
    if (in.beginArray()) {
        return true;
    }
    while (!in.atArrayEnd()) {
        if (in.beginElement() || readValue(in, items.emplace_back()) || in.endElement()) {
            return true;
        }
    }
    value = std::move(items);
    return in.endArray();
}

[[nodiscard]] inline bool readObject(IStructuredPullDeserializer& in, Value& value)
{
    std::vector<Value::Member> members;
    if (in.beginObject()) {
        return true;
    }
    while (!in.atObjectEnd()) {
        auto& [key, member] = members.emplace_back();
        if (in.memberName(key) || readValue(in, member) || in.endMember()) {
            return true;
        }
    }
    value = Dictionary(std::move(members));
    return in.endObject();
}

template <class T>
[[nodiscard]] bool readScalar(IStructuredPullDeserializer& in, Value& value,
                              bool (IStructuredPullDeserializer::*read)(T&))
{
    T scalar{};
    if ((in.*read)(scalar)) {
        return true;
    }
    value = Value(std::move(scalar));
    return false;
}

[[nodiscard]] inline bool readValue(IStructuredPullDeserializer& in, Value& value)
{
    using Kind = IStructuredPullDeserializer::Kind;
    Kind kind{};
    if (in.peek(kind)) {
        return true;
    }
    switch (kind) {
    case Kind::eNULL:
        value = nullptr;
        return in.nullValue();
    case Kind::eBOOL:
        return readScalar(in, value, &IStructuredPullDeserializer::boolValue);
    case Kind::eINTEGER:
        if (!readScalar(in, value, &IStructuredPullDeserializer::intValue)) {
            return false;
        }
        obr::ErrorStorage::ack(); // it is too large for a signed one
        return readScalar(in, value, &IStructuredPullDeserializer::uintValue);
    case Kind::eREAL:
        return readScalar(in, value, &IStructuredPullDeserializer::doubleValue);
    case Kind::eSTRING:
        return readScalar(in, value, &IStructuredPullDeserializer::stringValue);
    case Kind::eARRAY:
        return readArray(in, value);
    case Kind::eOBJECT:
        break;
    }
    return readObject(in, value);
}

[[nodiscard]] inline bool write(Format format, const Value& value, ByteBufferWriter& out)
{
    const auto serializer = makeSerializer(format);
    bool hasContent = false;
    return serializer->attach(out) || writeValue(*serializer, value) || serializer->finish(hasContent) || !hasContent;
}

[[nodiscard]] inline bool read(Format format, std::string_view bytes, Value& value)
{
    const auto deserializer = makeDeserializer(format);
    ByteBufferReader in(bytes.data(), bytes.size(), false);
    return deserializer->attach(in) || readValue(*deserializer, value) || deserializer->finish();
}

} // namespace util::serializer::test

#endif
