#ifndef KESA_SERVICEREGISTRY_SERVICEREGISTRYPEX_H
#define KESA_SERVICEREGISTRY_SERVICEREGISTRYPEX_H

#include <kesa/serviceregistry/IServiceRegistry.h>

#include <string>
#include <vector>

namespace kesa::serviceregistry {

/// The registry as a service: what its client side and its serving side have in common.
class KESA_API ServiceRegistryPex {
public:
    static constexpr const char* SERVICE_PATH = "/registry";
    static constexpr const char* SERVICE_VERSION = "1.0.0";
    static const std::vector<std::string>& ALL_SERVICE_VERSIONS;
    static const std::vector<std::string>& ADDITIONAL_SERVICE_VERSIONS;

    virtual ~ServiceRegistryPex();
    /// The registry this stands for; lives as long as this object.
    virtual IServiceRegistry* main() = 0;
};

} // namespace kesa::serviceregistry

#endif
