#include "processNames.h"

#include <transport/Authority.h>
#include <util/shellWord.h>

#include <string_view>

namespace kesactl {

std::string processOf(const kesa::url& locator)
{
    const std::string_view authority = locator.authority();
    return std::string(authority.substr(0, authority.find('+')));
}

std::string plainName(const std::string& encoded)
{
    const auto endpoint = kesa::commadapter::transport::parseProcessAuthority(kesa::url("ipc://" + encoded), "ipc");
    return endpoint ? endpoint->process : encoded;
}

std::string plainProcessOf(const kesa::url& locator)
{
    return plainName(processOf(locator));
}

std::string processArgument(const std::string& plain)
{
    return (plain.rfind('-', 0) == 0 ? "-- " : "") + util::shellWord(plain);
}

} // namespace kesactl
