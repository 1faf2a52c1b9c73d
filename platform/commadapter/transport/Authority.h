#ifndef KESA_COMMADAPTER_TRANSPORT_AUTHORITY_H
#define KESA_COMMADAPTER_TRANSPORT_AUTHORITY_H

#include "transport/ITransport.h"

#include <obr/api.h>

#include <optional>
#include <string>
#include <string_view>

namespace kesa::commadapter::transport {

/// Writes a process name as it stands in locators and in file names: bytes other than `[A-Za-z0-9._-]`, and a dot at
/// the beginning, as `%XX`. Two names never share a text, and none is hidden, "." or "..".
std::string encodeProcessName(std::string_view name);

/// Reads the authority `process` or `process+realm` of a locator of `scheme`; absent when it is malformed.
KESA_API std::optional<Endpoint> parseProcessAuthority(const url& locator, std::string_view scheme);

/// A realm nobody else has: 16 random hex digits.
std::string makeRealm();

} // namespace kesa::commadapter::transport

#endif
