#include "store/footprint.h"

#include <vector>

namespace kesa::registry {

namespace {

using util::config::Value;

/// What the heap keeps beside a block, and rounds it up by.
constexpr std::size_t BLOCK = 16;
/// Of what is shared: its counts, and the object that has the content.
constexpr std::size_t SHARED = 56 + BLOCK;

/// The block of a text; short ones have none.
std::size_t blockOf(const std::string& text)
{
    return text.capacity() < sizeof(std::string) / 2 ? 0 : text.capacity() + BLOCK;
}

std::size_t listOf(const optional<std::vector<std::string>>& texts)
{
    std::size_t bytes = 0;
    if (texts) {
        bytes += BLOCK + texts->size() * sizeof(std::string);
        for (const std::string& text : *texts) {
            bytes += blockOf(text);
        }
    }
    return bytes;
}

std::size_t membersOf(const util::config::Dictionary& object)
{
    std::size_t bytes = SHARED + BLOCK;
    for (const auto& [key, value] : object) {
        bytes += sizeof(Value::Member) - sizeof(Value) + blockOf(key) + footprint(value);
    }
    return bytes;
}

} // namespace

std::size_t footprint(const Value& value)
{
    std::size_t bytes = sizeof(Value);
    if (value.isString()) {
        bytes += SHARED + value.stringView().size();
    } else if (value.isArray()) {
        bytes += SHARED + BLOCK;
        for (const Value& element : value.items()) {
            bytes += footprint(element);
        }
    } else if (value.isDictionary()) {
        bytes += membersOf(value.dictionary());
    }
    return bytes;
}

std::size_t footprint(const ServiceDef& serviceDef)
{
    std::size_t bytes = sizeof(Record) + SHARED + blockOf(serviceDef.path.toString());
    bytes += listOf(serviceDef.versions) + listOf(serviceDef.serializationFormats) + listOf(serviceDef.scope);
    for (const url& locator : serviceDef.locators) {
        bytes += sizeof(url) + blockOf(locator.toString());
    }
    bytes += serviceDef.hostDomain ? blockOf(*serviceDef.hostDomain) : 0;
    return bytes + (serviceDef.metainfo ? membersOf(*serviceDef.metainfo) : 0);
}

std::size_t footprint(const Query& query)
{
    return sizeof(Query) + blockOf(query.pattern) + (query.scope ? blockOf(*query.scope) : 0) +
           (query.metadata ? membersOf(*query.metadata) : 0);
}

} // namespace kesa::registry
