#ifndef KESACTL_PEERTEXT_H
#define KESACTL_PEERTEXT_H

#include <kesa/Response.h>
#include <util/config/Value.h>

#include <string>
#include <string_view>

namespace kesactl {

// What others have written may be as large as a message. A person is shown as much as he reads.

/// A locator has a path of at most 1024 bytes, each perhaps percent-encoded.
inline constexpr std::size_t LONGEST_TEXT = 4000;
/// Of an error: as much as a process notes of one.
inline constexpr std::size_t LONGEST_REASON = 1024;

/// Of a text that is longer than any that Kesa writes the beginning, and how much is left out.
std::string shortened(std::string_view text, std::size_t most = LONGEST_TEXT);

/// With each text in it, the keys too, `shortened`.
util::config::Value withShortTexts(const util::config::Value& value);

/// What `kesa::reasonOf` says of an error of the registry or of a process, `shortened` as a reason.
std::string saidBy(const kesa::Response& error);

} // namespace kesactl

#endif
