#ifndef KESA_RUNTIME_V02_CONFIG_KNOWNNAMES_H
#define KESA_RUNTIME_V02_CONFIG_KNOWNNAMES_H

#include <kesa/mimetypes.h>

#include <string_view>

namespace kesa::runtime::v02 {

inline bool isKnownBackend(std::string_view name) noexcept
{
    return name == "local" || name == "comm";
}

/// Formats that services and clients agree on. MessagePack is none of them, though its payloads can be read.
inline bool isKnownFormat(std::string_view mimeName) noexcept
{
    return mimeName == mimetypes::QELBIN || mimeName == mimetypes::JSON;
}

} // namespace kesa::runtime::v02

#endif
