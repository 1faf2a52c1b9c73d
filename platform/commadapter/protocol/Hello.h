#ifndef KESA_COMMADAPTER_PROTOCOL_HELLO_H
#define KESA_COMMADAPTER_PROTOCOL_HELLO_H

#include "protocol/Frame.h"

#include <obr/UUID.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kesa::commadapter::protocol {

/// Client and server differ only in which messages they accept.
enum class Role { eCLIENT, eSERVER };

/// How a process introduces itself on a connection.
struct Hello {
    std::uint16_t lowestVersion = LOWEST_VERSION;
    std::uint16_t highestVersion = HIGHEST_VERSION;
    std::string process;
    std::string realm;
    obr::UUID instance; ///< differs for each start of a process
    std::vector<std::string> listeners;
    std::uint32_t maxMessageBytes = 16U << 20U; ///< of a peer; the own one is that of the own `Limits`
    std::uint32_t streamWindow = STREAM_WINDOW; ///< the same
};

/// How the reason begins why a connection between processes of different versions ends.
inline constexpr std::string_view NO_COMMON_VERSION = "no common protocol version";
/// The same of a peer that has not introduced itself in time.
inline constexpr std::string_view NO_HELLO = "no hello within";

} // namespace kesa::commadapter::protocol

#endif
