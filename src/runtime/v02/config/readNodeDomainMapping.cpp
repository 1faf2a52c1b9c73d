// "node_domain_mapping".
#include "ConfigNode.h"
#include "KesaConfig.h"

namespace kesa::runtime::v02 {

bool KesaConfig::readNodeDomainMapping(const ConfigNode& root)
{
    const ConfigNode mapping = root["node_domain_mapping"];
    if (!mapping.value().isDictionary()) {
        return mapping.value().isDefined() && mapping.fail(4, "readConfig", "node_domain_mapping is not a dictionary",
                                                           "write an object: domains by node name");
    }
    return mapping.readMembers([this](const std::string& node, const ConfigNode& value) {
        std::string domain;
        if (value.value().get(domain)) {
            return value.fail(3, "readConfig",
                              "readNodeDomainMapping dictionary value not string for node: " +
                                  util::config::excerpt(node),
                              "write the name of its domain in double quotes");
        }
        m_nodeDomainMapping.emplace(node, std::move(domain));
        return false;
    });
}

} // namespace kesa::runtime::v02
