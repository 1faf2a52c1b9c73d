#ifndef KESA_COMMADAPTER_TRANSPORT_IPCTRANSPORT_H
#define KESA_COMMADAPTER_TRANSPORT_IPCTRANSPORT_H

#include "transport/ITransport.h"

#include <comm/Reactor.h>

#include <memory>
#include <string>

namespace kesa::commadapter::transport {

struct IpcSettings {
    std::string runDir; ///< empty: the one that `chooseRunDirectory` finds
    unsigned socketMode = 0660;
    std::string socketGroup; ///< empty: as the directory gives it
};

/// Unix sockets `<run dir>/<process>.sock`; see the head of IpcTransport.cpp for how names are claimed.
std::unique_ptr<ITransport> makeIpcTransport(const IpcSettings& settings, std::shared_ptr<comm::Reactor> loop);

} // namespace kesa::commadapter::transport

#endif
