#include <kesa/serviceregistry/ServiceRegistryPex.h>

namespace kesa::serviceregistry {

// Never destroyed: threads may still run when the process exits.
const std::vector<std::string>& ServiceRegistryPex::ALL_SERVICE_VERSIONS =
    *new std::vector<std::string>{SERVICE_VERSION};
const std::vector<std::string>& ServiceRegistryPex::ADDITIONAL_SERVICE_VERSIONS = *new std::vector<std::string>;

ServiceRegistryPex::~ServiceRegistryPex() = default;

} // namespace kesa::serviceregistry
