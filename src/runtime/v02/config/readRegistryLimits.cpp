// "registry": what a process that hosts the registry keeps for others. What is wrong costs one setting. The policy is
// the registry's own to read.
#include "ConfigNode.h"
#include "KesaConfig.h"

namespace kesa::runtime::v02 {
namespace {

constexpr std::uint64_t LEAST_BYTES = 65536;
constexpr std::uint64_t MOST_BYTES = std::uint64_t{1} << 40U;

void readLimit(const ConfigNode& registry, const char* key, std::uint64_t& limit)
{
    const ConfigNode node = registry[key];
    std::uint64_t bytes = 0;
    if (!node.value().isDefined()) {
        return;
    }
    if (node.value().get(bytes) || bytes < LEAST_BYTES || bytes > MOST_BYTES) {
        node.complain(Severity::eWARNING, node.mismatch("a whole number from 65536 to 1099511627776"),
                      "write how many bytes, without quotation marks");
        return;
    }
    limit = bytes;
    KESA_TRACE(configChannel(), 2, "[readConfig] %s=%llu", key, static_cast<unsigned long long>(bytes));
}

} // namespace

void KesaConfig::readRegistryLimits(const ConfigNode& root)
{
    const ConfigNode registry = root["registry"];
    if (registry.value().isDefined() && !registry.value().isDictionary()) {
        registry.complain(Severity::eWARNING, registry.mismatch("an object") + ", which counts as an empty one",
                          "write {\"max_user_bytes\": 8388608} or leave it out");
        return;
    }
    readLimit(registry, "max_user_bytes", m_registryLimits.m_maxUserBytes);
    readLimit(registry, "max_bytes", m_registryLimits.m_maxBytes);
}

} // namespace kesa::runtime::v02
