#ifndef KESA_COMMADAPTER_BACKEND_COMMBACKEND_H
#define KESA_COMMADAPTER_BACKEND_COMMBACKEND_H

#include "backend/connection/CommSettings.h"
#include "transport/ITransport.h"

#include <comm/Reactor.h>
#include <kesa/commadapter/IBackend.h>

#include <gates/Table.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kesa::commadapter {

/// Makes the transports of a backend, given its loop.
using TransportFactory =
    std::function<std::vector<std::unique_ptr<transport::ITransport>>(std::shared_ptr<comm::Reactor> loop)>;

/// The "comm" backend: services and client objects over transports, with one I/O loop. `access` says who may ask what
/// of the services; null: everybody everything.
std::unique_ptr<IBackend> makeCommBackend(const std::string& process, const CommSettings& settings,
                                          TransportFactory transports, std::shared_ptr<access::Table> access = nullptr);

} // namespace kesa::commadapter

#endif
