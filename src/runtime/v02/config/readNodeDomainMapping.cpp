// "node_domain_mapping".
#include "ConfigNode.h"
#include "KesaConfig.h"

namespace kesa::runtime::v02 {

bool KesaConfig::readNodeDomainMapping(const ConfigNode& root)
{
    const ConfigNode mapping = root["node_domain_mapping"];
    if (!mapping.value().isDictionary()) {
        return mapping.value().isDefined() &&
               mapping.failAs(mapping.mismatch("an object"), 4, "readConfig", "node_domain_mapping is not a dictionary",
                              R"(write partitions by node, such as {"node-7": "home"})");
    }
    return mapping.readMembers([this](const std::string& node, const ConfigNode& value) {
        std::string domain;
        if (value.value().get(domain)) {
            return value.failAs(value.mismatch("a text"), 3, "readConfig",
                                "readNodeDomainMapping dictionary value not string for node: " +
                                    util::config::excerpt(node),
                                "write the name of its partition in double quotes");
        }
        m_nodeDomainMapping.emplace(node, std::move(domain));
        return false;
    });
}

} // namespace kesa::runtime::v02
