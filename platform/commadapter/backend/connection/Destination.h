#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_DESTINATION_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_DESTINATION_H

#include "transport/ITransport.h"

#include <functional>
#include <memory>

namespace kesa::commadapter {

/// Where a connection leads.
struct Destination {
    std::shared_ptr<transport::ITransport> transport;
    transport::Endpoint endpoint;
};

/// Opens a stream to an endpoint of this very process; null when it is another process's.
using OpenLocal = std::function<std::unique_ptr<transport::IStream>(const Destination&)>;

} // namespace kesa::commadapter

#endif
