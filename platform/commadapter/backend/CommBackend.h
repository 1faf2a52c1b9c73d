#ifndef KESA_COMMADAPTER_BACKEND_COMMBACKEND_H
#define KESA_COMMADAPTER_BACKEND_COMMBACKEND_H

#include "transport/ITransport.h"

#include <comm/Reactor.h>
#include <kesa/commadapter/IBackend.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kesa::commadapter {

/// The settings of the "comm" backend, as the document's "comm" member has them.
struct CommSettings {
    std::string runDir;
    unsigned socketMode = 0660;
    std::string socketGroup;
    std::map<std::string, std::string> routes; ///< path without scheme -> locator
    std::uint32_t maxMessageBytes = 16U << 20U;
    std::size_t sendQueueBytes = 4U << 20U;
    std::size_t processQueueBytes = 64U << 20U;
    comm::TimeNs heartbeat = 5 * comm::SECOND;
};

/// Makes the transports of a backend, given its loop.
using TransportFactory =
    std::function<std::vector<std::unique_ptr<transport::ITransport>>(std::shared_ptr<comm::Reactor> loop)>;

/// The "comm" backend: services and client objects over transports, with one I/O loop.
std::unique_ptr<IBackend> makeCommBackend(const std::string& process, const CommSettings& settings,
                                          TransportFactory transports);

} // namespace kesa::commadapter

#endif
