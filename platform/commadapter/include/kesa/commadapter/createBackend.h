#ifndef KESA_COMMADAPTER_CREATEBACKEND_H
#define KESA_COMMADAPTER_CREATEBACKEND_H

#include <kesa/commadapter/IBackend.h>

#include <cstdint>
#include <memory>
#include <string>

namespace kesa::commadapter {

/// The "comm" backend of a process, not yet started; never null. It reads its own settings from the "comm" member of
/// the configuration document.
KESA_API std::unique_ptr<IBackend> createBackend(const std::string& process, const std::string& partition);

/// How many bytes a message of this process may have where its configuration does not say ("max_message_bytes"):
/// 16 MiB without this call. A peer that sends more is cut off before its message is taken, so a process that needs
/// little takes little. Before the first backend is made.
KESA_API void setDefaultMessageLimit(std::uint32_t bytes);

} // namespace kesa::commadapter

#endif
