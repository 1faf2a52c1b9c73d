#ifndef KESA_COMMADAPTER_PROTOCOL_VOCABULARY_H
#define KESA_COMMADAPTER_PROTOCOL_VOCABULARY_H

#include "protocol/Head.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

/// Words that travel as small integers.
namespace kesa::commadapter::protocol::vocabulary {

/// The words a key's value may be, by their numbers; none for most keys. A number without a word is "".
std::span<const std::string_view> wordsOf(Key key) noexcept;
/// The number of `word` among the words of `key`.
std::optional<std::uint8_t> numberOf(Key key, std::string_view word) noexcept;

/// The header a key stands for; empty for keys that are no headers.
std::string_view headerOf(Key key) noexcept;
/// The key that stands for a header.
std::optional<Key> keyOf(std::string_view header) noexcept;

} // namespace kesa::commadapter::protocol::vocabulary

#endif
