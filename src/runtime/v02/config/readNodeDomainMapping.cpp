// "node_domain_mapping".
#include "ConfigNode.h"
#include "KesaConfig.h"

namespace kesa::runtime::v02 {

bool KesaConfig::readNodeDomainMapping(const ConfigNode& root)
{
    const ConfigNode mapping = root["node_domain_mapping"];
    if (!mapping.value().isDictionary()) {
        return mapping.value().isDefined() && mapping.fail(4, "node_domain_mapping is not a dictionary",
                                                           "[readConfig] node_domain_mapping is not a dictionary");
    }
    for (const auto& [node, value] : mapping.value()) {
        std::string domain;
        if (value.get(domain)) {
            const std::string text = "readNodeDomainMapping dictionary value not string for node: " + node;
            return mapping[node].fail(3, text, "[readConfig] {}", text);
        }
        m_nodeDomainMapping.emplace(node, std::move(domain));
    }
    return false;
}

} // namespace kesa::runtime::v02
