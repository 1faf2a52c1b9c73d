#include "protocol/Head.h"
#include "protocol/Vocabulary.h"

#include <kesa/headers.h>
#include <kesa/processName.h>
#include <kesa/responsesemantics.h>
#include <kesa/serializer/serialize.h>
#include <obr/ErrorStorage.h>
#include <util/ByteBufferReader.h>
#include <util/cbor.h>
#include <util/serializer/formats.h>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

namespace kesa::commadapter::protocol {

using util::cbor::Major;
using util::cbor::Reader;
using util::config::Value;

namespace {

constexpr std::size_t USUAL_HEADERS = 6;

/// The key of a member: a number, or a name.
struct MemberKey {
    bool isNumber = false;
    Key number = Key::eNONE; ///< also for numbers that are no keys
    std::string_view name;
};

/// Goes through the members of a head. `visit(key, reader)` reads the value, and answers true on failure.
template <class Visit>
[[nodiscard]] bool forEachMember(Reader& reader, Visit&& visit)
{
    Reader::Item map;
    if (reader.item(map)) {
        return true;
    }
    if (map.major != Major::eMAP) {
        return reader.fail("it is not a map");
    }
    for (std::uint64_t i = 0; map.isIndefinite ? !reader.atBreak() : i < map.argument; ++i) {
        Reader::Item item;
        if (reader.item(item)) {
            return true;
        }
        MemberKey key;
        if (item.major == Major::eUNSIGNED) {
            key.isNumber = true;
            key.number = static_cast<Key>(std::min<std::uint64_t>(item.argument, 255));
        } else if (item.major != Major::eTEXT) {
            return reader.fail("a key is neither a number nor text");
        } else if (reader.string(item, key.name)) {
            return true;
        }
        if (visit(key, reader)) {
            return true;
        }
    }
    return !reader.atEnd() && reader.fail("bytes follow the map");
}

/// A text, or the number of a word of `key`.
[[nodiscard]] bool readWord(Reader& reader, Key key, std::string_view& word)
{
    Reader::Item item;
    if (reader.item(item)) {
        return true;
    }
    if (item.major == Major::eTEXT) {
        return reader.string(item, word);
    }
    const auto words = vocabulary::wordsOf(key);
    if (item.major != Major::eUNSIGNED || words.empty()) {
        return reader.fail("a value is not text");
    }
    if (item.argument >= words.size() || words[item.argument].empty()) {
        return reader.fail("a word has an unknown number");
    }
    word = words[item.argument];
    return false;
}

[[nodiscard]] bool readNumber(Reader& reader, std::uint64_t highest, std::uint64_t& number)
{
    Reader::Item item;
    if (reader.item(item)) {
        return true;
    }
    if (item.major != Major::eUNSIGNED || item.argument > highest) {
        return reader.fail("a value is not a number in its range");
    }
    number = item.argument;
    return false;
}

std::string_view headerName(const MemberKey& key) noexcept
{
    return key.isNumber ? vocabulary::headerOf(key.number) : key.name;
}

/// A header's value that is neither text nor an integer.
[[nodiscard]] bool readStructure(Reader& reader, Value& value)
{
    const unsigned char* const start = reader.position();
    if (reader.skip(VALUE_DEPTH)) {
        return true;
    }
    obr::ErrorStorage::Slot pending; // asking for headers is no read of its own
    obr::ErrorStorage::exchange(pending);
    util::ByteBufferReader bytes(start, static_cast<std::size_t>(reader.position() - start), false);
    const auto deserializer = util::serializer::makeDeserializer(util::serializer::Format::eQELBIN);
    if (deserializer->attach(bytes) || serializer::deserialize(*deserializer, value) || deserializer->finish()) {
        value = Value(nullptr); // a form this side has no value for: there, but nothing that is understood
    }
    obr::ErrorStorage::exchange(pending);
    return false;
}

[[nodiscard]] bool readHeader(const MemberKey& key, Reader& reader, Value& value)
{
    Reader after = reader;
    Reader::Item item;
    if (after.item(item)) {
        return true;
    }
    std::string_view word;
    if (key.isNumber || item.major == Major::eTEXT) {
        if (readWord(reader, key.number, word)) {
            return true;
        }
        value = Value(word);
    } else if (item.major == Major::eUNSIGNED) {
        value = Value(item.argument);
        reader = after;
    } else if (item.major == Major::eNEGATIVE) {
        value = Value(static_cast<std::int64_t>(~item.argument));
        reader = after;
    } else {
        return readStructure(reader, value);
    }
    return false;
}

/// Checks what stays undecoded.
[[nodiscard]] bool skipHeader(const MemberKey& key, Reader& reader, Head& head)
{
    if (!key.isNumber) {
        head.hasHeaders = true;
        return reader.skip(VALUE_DEPTH);
    }
    if (vocabulary::headerOf(key.number).empty()) {
        return reader.skip(VALUE_DEPTH); // of a later version
    }
    head.hasHeaders = true;
    std::string_view word;
    if (readWord(reader, key.number, word)) {
        return true;
    }
    if (key.number == Key::eRESPONSE_SEMANTIC) {
        head.isPersistent = word == responsesemantics::PERSISTENT_STREAM;
    }
    return false;
}

} // namespace

bool readHead(const unsigned char* data, std::size_t size, Head& head, std::string& why)
{
    if (size == 0) {
        return false;
    }
    std::array<bool, 4> seen{};
    Reader reader(data, size);
    const bool failed = forEachMember(reader, [&](const MemberKey& key, Reader& in) {
        const auto index = static_cast<std::size_t>(key.number);
        if (index < seen.size() && std::exchange(seen[index], true)) {
            return in.fail("a member stands twice");
        }
        switch (key.number) {
        case Key::eCOMMAND:
            return readWord(in, key.number, head.command);
        case Key::ePATH:
            return readWord(in, key.number, head.path);
        case Key::eMIME_TYPE:
            return readWord(in, key.number, head.mimeType);
        case Key::eBODY_SIZE:
            return readNumber(in, UINT32_MAX, head.bodySize.emplace());
        default:
            return skipHeader(key, in, head);
        }
    });
    if (failed) {
        why = reader.why();
    }
    return failed;
}

namespace {

[[nodiscard]] bool readInstance(Reader& reader, obr::UUID& instance)
{
    Reader::Item item;
    std::string_view content;
    if (reader.item(item)) {
        return true;
    }
    std::array<std::uint8_t, 16> bytes{};
    if (item.major != Major::eBYTES || item.argument != bytes.size()) {
        return reader.fail("the instance is not 16 bytes");
    }
    if (reader.string(item, content)) {
        return true;
    }
    std::copy(content.begin(), content.end(), bytes.begin());
    instance = obr::UUID(bytes);
    return false;
}

[[nodiscard]] bool readListeners(Reader& reader, std::vector<std::string>& listeners)
{
    Reader::Item list;
    if (reader.item(list)) {
        return true;
    }
    if (list.major != Major::eARRAY) {
        return reader.fail("the listeners are not an array");
    }
    listeners.clear();
    for (std::uint64_t i = 0; list.isIndefinite ? !reader.atBreak() : i < list.argument; ++i) {
        std::string_view listener;
        if (readWord(reader, Key::eNONE, listener)) {
            return true;
        }
        listeners.emplace_back(listener);
    }
    return false;
}

[[nodiscard]] bool readText(Reader& reader, std::string& text)
{
    std::string_view content;
    if (readWord(reader, Key::eNONE, content)) {
        return true;
    }
    text = content;
    return false;
}

template <class Number>
[[nodiscard]] bool readNumberInto(Reader& reader, Number& into)
{
    std::uint64_t number = 0;
    if (readNumber(reader, static_cast<Number>(~Number{0}), number)) {
        return true;
    }
    into = static_cast<Number>(number);
    return false;
}

} // namespace

bool readHello(const unsigned char* data, std::size_t size, Hello& hello, std::string& why)
{
    hello.lowestVersion = 0; // missing versions are no versions
    hello.highestVersion = 0;
    Reader reader(data, size);
    const bool failed = forEachMember(reader, [&](const MemberKey& key, Reader& in) {
        switch (key.number) {
        case Key::eLOWEST_VERSION:
            return readNumberInto(in, hello.lowestVersion);
        case Key::eHIGHEST_VERSION:
            return readNumberInto(in, hello.highestVersion);
        case Key::ePROCESS:
            return readText(in, hello.process);
        case Key::eREALM:
            return readText(in, hello.realm);
        case Key::eINSTANCE:
            return readInstance(in, hello.instance);
        case Key::eLISTENERS:
            return readListeners(in, hello.listeners);
        case Key::eMAX_MESSAGE_BYTES:
            return readNumberInto(in, hello.maxMessageBytes);
        case Key::eSTREAM_WINDOW:
            return readNumberInto(in, hello.streamWindow) ||
                   (hello.streamWindow == 0 && in.fail("a stream window of 0 bytes"));
        default:
            return in.skip(VALUE_DEPTH);
        }
    });
    if (failed) {
        why = reader.why();
    } else if (!hello.process.empty() && !isProcessName(hello.process)) {
        why = "the process name has " + std::to_string(hello.process.size()) + " bytes, more than " +
              std::to_string(LONGEST_PROCESS_NAME);
        return true;
    }
    return failed;
}

bool readGoodbye(const unsigned char* data, std::size_t size, std::string& reason, std::string& why)
{
    Reader reader(data, size);
    const bool failed = forEachMember(reader, [&](const MemberKey& key, Reader& in) {
        return key.number == Key::eREASON ? readText(in, reason) : in.skip(VALUE_DEPTH);
    });
    if (failed) {
        why = reader.why();
    }
    return failed;
}

/// Decodes the wanted headers. What a sender says of the client is none.
template <class IsWanted, class Keep>
void HeaderSource::read(const IsWanted& isWanted, const Keep& keep) const
{
    Reader reader(m_data, m_size);
    const bool failed = m_size > 0 && forEachMember(reader, [&](const MemberKey& key, Reader& in) {
                            const std::string_view name = headerName(key);
                            if ((key.isNumber && name.empty()) || !isWanted(name) ||
                                (m_isRequest && name == kesa::headers::CLIENT_ID)) {
                                return in.skip(VALUE_DEPTH);
                            }
                            Value value;
                            if (readHeader(key, in, value)) {
                                return true;
                            }
                            keep(name, std::move(value));
                            return false;
                        });
    static_cast<void>(failed); // the head was checked when it arrived
    if (m_clientId != nullptr && isWanted(kesa::headers::CLIENT_ID)) {
        keep(kesa::headers::CLIENT_ID, Value(*m_clientId));
    }
}

GenericObject HeaderSource::decode() const
{
    std::vector<Value::Member> members;
    members.reserve(USUAL_HEADERS);
    read([](std::string_view) { return true; },
         [&members](std::string_view name, Value&& value) { members.emplace_back(name, std::move(value)); });
    return GenericObject(std::move(members));
}

/// Mostly it is not there: a header travels under its name, unless it has a number.
bool HeaderSource::mayHave(std::string_view name) const noexcept
{
    const std::string_view head(reinterpret_cast<const char*>(m_data), m_size);
    return head.find(name) != std::string_view::npos || vocabulary::keyOf(name);
}

Value HeaderSource::find(std::string_view name) const
{
    if (name != kesa::headers::CLIENT_ID && (m_size == 0 || !mayHave(name))) {
        return {};
    }
    Value found;
    read([name](std::string_view header) { return header == name; },
         [&found](std::string_view, Value&& value) { found = std::move(value); });
    return found;
}

} // namespace kesa::commadapter::protocol
