#ifndef KESACTL_PEERTEXT_H
#define KESACTL_PEERTEXT_H

#include <kesa/Response.h>
#include <util/config/Value.h>

#include <string>
#include <string_view>

namespace kesactl {

// What others have written may be as large as a message. A person is shown as much as he reads.

/// Of a text that is longer than any that Kesa writes the beginning, and how much is left out.
std::string shortened(std::string_view text);

/// With each text in it, the keys too, `shortened`.
util::config::Value withShortTexts(const util::config::Value& value);

/// What `kesa::reasonOf` says of an error, `shortened`.
std::string saidBy(const kesa::Response& error);

} // namespace kesactl

#endif
