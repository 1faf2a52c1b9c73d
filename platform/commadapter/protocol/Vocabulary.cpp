#include "protocol/Vocabulary.h"

#include <kesa/commands.h>
#include <kesa/headers.h>
#include <kesa/mimetypes.h>
#include <kesa/responsesemantics.h>

#include <array>
#include <cstddef>

namespace kesa::commadapter::protocol::vocabulary {

namespace {

constexpr std::string_view COMMANDS[] = {commands::RETRIEVE, commands::UPDATE, commands::DELETE, commands::INSERT};
constexpr std::string_view MIME_TYPES[] = {
    "", mimetypes::JSON, mimetypes::TEXT, mimetypes::OCTETS, mimetypes::MSGPACK, mimetypes::QELBIN};
constexpr std::string_view SEMANTICS[] = {responsesemantics::PERSISTENT_STREAM, responsesemantics::SINGLE_RESPONSE,
                                          responsesemantics::EMPTY_RESPONSE, responsesemantics::MULTI_RESPONSE};

constexpr auto FIRST_HEADER = static_cast<std::size_t>(Key::eACCEPT);
/// In the order of their keys.
constexpr std::string_view HEADERS[] = {
    headers::ACCEPT,   headers::RESPONSE_SEMANTIC, headers::SERVICE_PATH,    headers::CLIENT_ID,
    headers::TRACE_ID, headers::AUTH_TOKEN,        headers::REQUEST_COMMAND, headers::REQUEST_PATH,
};

std::optional<std::uint8_t> find(std::span<const std::string_view> words, std::string_view word) noexcept
{
    if (word.empty()) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (words[i] == word) {
            return static_cast<std::uint8_t>(i);
        }
    }
    return std::nullopt;
}

} // namespace

std::span<const std::string_view> wordsOf(Key key) noexcept
{
    switch (key) {
    case Key::eCOMMAND:
    case Key::eREQUEST_COMMAND:
        return COMMANDS;
    case Key::eMIME_TYPE:
    case Key::eACCEPT:
        return MIME_TYPES;
    case Key::eRESPONSE_SEMANTIC:
        return SEMANTICS;
    default:
        return {};
    }
}

std::optional<std::uint8_t> numberOf(Key key, std::string_view word) noexcept
{
    return find(wordsOf(key), word);
}

std::string_view headerOf(Key key) noexcept
{
    const auto index = static_cast<std::size_t>(key) - FIRST_HEADER; // wraps around for smaller ones
    return index < std::size(HEADERS) ? HEADERS[index] : std::string_view();
}

std::optional<Key> keyOf(std::string_view header) noexcept
{
    const std::optional<std::uint8_t> index = find(HEADERS, header);
    return index ? std::optional(static_cast<Key>(*index + FIRST_HEADER)) : std::nullopt;
}

} // namespace kesa::commadapter::protocol::vocabulary
