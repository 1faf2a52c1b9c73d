#include <kesa/serializer/serialize.h>
#include <obr/ErrorOutput.h>
#include <obr/ErrorStorage.h>
#include <obr/errors.h>
#include <util/serializer/formats.h>

#include <fmt/format.h>

#include <utility>
#include <vector>

namespace kesa::serializer {

using util::config::Dictionary;
using util::config::Value;
using Kind = IStructuredPullDeserializer::Kind;

namespace {

// Values nest on the stack while they are written and read.
using util::serializer::MAX_DEPTH;

bool fail(std::string_view text)
{
    return obr::ErrorOutput(__FILE__, __LINE__, true)(obr::errors::Error, obr::errors::TEXT, text);
}

bool failTooDeep()
{
    return fail("the value is nested too deep");
}

bool writeValue(IStructuredSerializer& out, const Value& value, std::size_t depth);

bool writeMembers(IStructuredSerializer& out, const Dictionary& value, std::size_t depth)
{
    if (depth >= MAX_DEPTH) {
        return failTooDeep();
    }
    if (out.beginObject()) {
        return true;
    }
    for (const auto& [key, member] : value) {
        if (!member.isDefined()) {
            continue; // undefined is what an absent member reads as
        }
        if (out.memberName(key) || writeValue(out, member, depth + 1) || out.endMember()) {
            return true;
        }
    }
    return out.endObject();
}

bool writeElements(IStructuredSerializer& out, const Value::Array& elements, std::size_t depth)
{
    if (depth >= MAX_DEPTH) {
        return failTooDeep();
    }
    if (out.beginArray()) {
        return true;
    }
    for (const Value& element : elements) {
        if (out.beginElement() || writeValue(out, element, depth + 1) || out.endElement()) {
            return true;
        }
    }
    return out.endArray();
}

bool writeNumber(IStructuredSerializer& out, const Value& value)
{
    if (std::int64_t number = 0; !value.get(number)) {
        return out.intValue(number);
    }
    if (std::uint64_t number = 0; !value.get(number)) {
        return out.uintValue(number);
    }
    double number = 0;
    return value.get(number) ? fail("a value that is not defined can not be written") : out.doubleValue(number);
}

bool writeValue(IStructuredSerializer& out, const Value& value, std::size_t depth)
{
    if (value.isDictionary()) {
        return writeMembers(out, value.dictionary(), depth);
    }
    if (value.isArray()) {
        return writeElements(out, value.items(), depth);
    }
    if (value.isString()) {
        return out.stringValue(value.stringView());
    }
    if (value.isNull()) {
        return out.nullValue();
    }
    if (bool boolean = false; !value.get(boolean)) {
        return out.boolValue(boolean);
    }
    return writeNumber(out, value);
}

bool readValue(IStructuredPullDeserializer& in, Value& value, std::size_t depth);

bool readMembers(IStructuredPullDeserializer& in, Dictionary& value, std::size_t depth)
{
    if (depth >= MAX_DEPTH) {
        return failTooDeep();
    }
    if (in.beginObject()) {
        return true;
    }
    std::vector<Value::Member> members;
    members.reserve(in.itemCount());
    while (!in.atObjectEnd()) {
        auto& [name, member] = members.emplace_back();
        if (obr::ErrorStorage::isError() || in.memberName(name) || readValue(in, member, depth + 1) || in.endMember()) {
            return true;
        }
    }
    if (in.endObject()) {
        return true;
    }
    value = Dictionary(std::move(members));
    return false;
}

bool readElements(IStructuredPullDeserializer& in, Value& value, std::size_t depth)
{
    if (depth >= MAX_DEPTH) {
        return failTooDeep();
    }
    if (in.beginArray()) {
        return true;
    }
    Value::Array elements;
    elements.reserve(in.itemCount());
    while (!in.atArrayEnd()) {
        if (obr::ErrorStorage::isError() || in.beginElement() || readValue(in, elements.emplace_back(), depth + 1) ||
            in.endElement()) {
            return true;
        }
    }
    if (in.endArray()) {
        return true;
    }
    value = Value(std::move(elements));
    return false;
}

bool readInteger(IStructuredPullDeserializer& in, Value& value)
{
    const bool wasError = obr::ErrorStorage::isError();
    if (std::int64_t number = 0; !in.intValue(number)) {
        value = Value(number);
        return false;
    }
    std::uint64_t number = 0;
    if (in.uintValue(number)) {
        return true;
    }
    if (!wasError) {
        obr::ErrorStorage::ack(); // of the first attempt
    }
    value = Value(number);
    return false;
}

template <class T, bool (IStructuredPullDeserializer::*READ)(T&)>
bool readInto(IStructuredPullDeserializer& in, Value& value)
{
    T read{};
    if ((in.*READ)(read)) {
        return true;
    }
    value = Value(read);
    return false;
}

bool readValue(IStructuredPullDeserializer& in, Value& value, std::size_t depth)
{
    Kind kind = Kind::eNULL;
    if (in.peek(kind)) {
        return true;
    }
    switch (kind) {
    case Kind::eNULL:
        value = Value(nullptr);
        return in.nullValue();
    case Kind::eBOOL:
        return readInto<bool, &IStructuredPullDeserializer::boolValue>(in, value);
    case Kind::eINTEGER:
        return readInteger(in, value);
    case Kind::eREAL:
        return readInto<double, &IStructuredPullDeserializer::doubleValue>(in, value);
    case Kind::eSTRING:
        return readInto<std::string_view, &IStructuredPullDeserializer::stringView>(in, value);
    case Kind::eARRAY:
        return readElements(in, value, depth);
    case Kind::eOBJECT:
        break;
    }
    Dictionary dictionary;
    if (readMembers(in, dictionary, depth)) {
        return true;
    }
    value = Value(std::move(dictionary));
    return false;
}

template <class T>
bool readNumberAs(IStructuredPullDeserializer& in, T& value, T least, T most, const char* expected)
{
    Kind kind = Kind::eNULL;
    if (in.peek(kind)) {
        return true;
    }
    if (kind != Kind::eINTEGER && kind != Kind::eREAL) {
        return fail("a number is expected");
    }
    Value read;
    if (readValue(in, read, 0)) {
        return true;
    }
    T number{};
    if (read.get(number) || number < least || number > most) {
        return fail(fmt::format("{} is no {} from {} to {}", read.toText(), expected, least, most));
    }
    value = number;
    return false;
}

} // namespace

bool serialize(IStructuredSerializer& out, const std::string& value)
{
    return out.stringValue(value);
}
bool serialize(IStructuredSerializer& out, const Path& value)
{
    return out.stringValue(value.toString());
}
bool serialize(IStructuredSerializer& out, const url& value)
{
    return out.stringValue(value.toString());
}
bool serialize(IStructuredSerializer& out, const obr::UUID& value)
{
    return out.stringValue(value.toString());
}
bool serialize(IStructuredSerializer& out, const Value& value)
{
    return writeValue(out, value, 0);
}
bool serialize(IStructuredSerializer& out, const Dictionary& value)
{
    return writeMembers(out, value, 0);
}

bool deserialize(IStructuredPullDeserializer& in, std::string& value)
{
    return in.stringValue(value);
}
bool deserialize(IStructuredPullDeserializer& in, bool& value)
{
    return in.boolValue(value);
}

bool readNumber(IStructuredPullDeserializer& in, std::int64_t& value, std::int64_t least, std::int64_t most)
{
    return readNumberAs(in, value, least, most, "integer");
}
bool readNumber(IStructuredPullDeserializer& in, std::uint64_t& value, std::uint64_t least, std::uint64_t most)
{
    return readNumberAs(in, value, least, most, "integer");
}
bool readNumber(IStructuredPullDeserializer& in, double& value, double least, double most)
{
    return readNumberAs(in, value, least, most, "number");
}

bool deserialize(IStructuredPullDeserializer& in, Path& value)
{
    std::string_view text;
    if (in.stringView(text)) {
        return true;
    }
    value = Path(std::string(text));
    return false;
}

bool deserialize(IStructuredPullDeserializer& in, url& value)
{
    std::string_view text;
    if (in.stringView(text)) {
        return true;
    }
    value.init(std::string(text));
    return false;
}

bool deserialize(IStructuredPullDeserializer& in, obr::UUID& value)
{
    std::string_view text;
    if (in.stringView(text)) {
        return true;
    }
    const auto id = obr::UUID::fromString(text);
    if (!id) {
        return fail("'" + std::string(text) + "' is not a UUID");
    }
    value = *id;
    return false;
}

bool deserialize(IStructuredPullDeserializer& in, Value& value)
{
    Value read;
    if (readValue(in, read, 0)) {
        return true;
    }
    value = std::move(read);
    return false;
}

bool deserialize(IStructuredPullDeserializer& in, Dictionary& value)
{
    return readMembers(in, value, 0);
}

} // namespace kesa::serializer
