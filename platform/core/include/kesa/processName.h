#ifndef KESA_PROCESSNAME_H
#define KESA_PROCESSNAME_H

#include <obr/api.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace kesa {

inline constexpr std::size_t LONGEST_PROCESS_NAME = 64;

/// Whether a process can have this name: 1 to 64 bytes of UTF-8.
KESA_API bool isProcessName(std::string_view name) noexcept;
/// Why it cannot, for people; empty when it can.
KESA_API std::string complaintAboutProcessName(std::string_view name);

} // namespace kesa

#endif
