#include "backend/connection/Destination.h"

#include <obr/visible.h>

#include <fmt/format.h>

namespace kesa::commadapter {

std::string Destination::complaintAbout(const std::string& name, std::int64_t pid) const
{
    if (name.empty() || endpoint.process.empty() || name == endpoint.process) {
        return {};
    }
    const std::string wanted = obr::visible(endpoint.process);
    const std::string found = obr::visible(name);
    return fmt::format("{}: process {} listens on the socket of \"{}\" and calls itself \"{}\"; end it and start "
                       "\"{}\" anew, or name \"{}\" in the locator",
                       ANOTHER_NAME, pid, wanted, found, wanted, found);
}

} // namespace kesa::commadapter
