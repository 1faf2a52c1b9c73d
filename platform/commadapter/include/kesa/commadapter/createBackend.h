#ifndef KESA_COMMADAPTER_CREATEBACKEND_H
#define KESA_COMMADAPTER_CREATEBACKEND_H

#include <kesa/commadapter/IBackend.h>

#include <memory>
#include <string>

namespace kesa::commadapter {

/// The "comm" backend of a process, not yet started; never null. It reads its own settings from the "comm" member of
/// the configuration document.
KESA_API std::unique_ptr<IBackend> createBackend(const std::string& process, const std::string& partition);

} // namespace kesa::commadapter

#endif
