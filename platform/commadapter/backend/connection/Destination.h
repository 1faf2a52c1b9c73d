#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_DESTINATION_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_DESTINATION_H

#include "transport/ITransport.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kesa::commadapter {

/// Where a connection leads.
struct Destination {
    std::shared_ptr<transport::ITransport> transport;
    transport::Endpoint endpoint;

    /// How the reason begins why there is no connection to a process of another name.
    static constexpr std::string_view ANOTHER_NAME = "another name";
    /// Why it is not led to by what has answered, by the name in its hello; empty when it is. A member that does not
    /// say its name is taken at the locator's word.
    std::string complaintAbout(const std::string& name, std::int64_t pid) const;
};

/// Opens a stream to an endpoint of this very process; null when it is another process's.
using OpenLocal = std::function<std::unique_ptr<transport::IStream>(const Destination&)>;

} // namespace kesa::commadapter

#endif
