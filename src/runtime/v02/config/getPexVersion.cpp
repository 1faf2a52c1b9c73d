#include <kesa/protocols.h>
#include <kesa/runtime/v02/getPexVersion.h>
#include <util/config/InterfaceInformationProvider.h>

namespace kesa::runtime::v02 {

optional<std::vector<std::string>> getPexVersion(const std::string& servicePath)
{
    const std::string name = servicePath.substr(servicePath.rfind('/', 0) == 0 ? 1 : 0);
    std::vector<std::string> versions;
    if (util::config::InterfaceInformationProvider::instance().getInterfaceVersion(std::string(protocols::PEX), name,
                                                                                   versions)) {
        return nullopt;
    }
    return versions;
}

} // namespace kesa::runtime::v02
