#include "gates/Gate.h"

#include <kesa/Path.h>

namespace kesa::access {

std::string resourcePath(std::string_view resource)
{
    if (!resource.empty() && resource.front() == '/') {
        resource.remove_prefix(1);
    }
    if (!resource.empty() && resource.back() == '/') {
        resource.remove_suffix(1);
    }
    std::string path("/");
    path.append(resource);
    return resource.empty() || Path::isCanonical(path) ? path : std::string();
}

Gate::Gate(const std::vector<Rule>& rules, const std::vector<std::size_t>& concerning)
{
    for (const std::size_t number : concerning) {
        const Rule& rule = rules[number];
        for (const std::string& command : rule.may) {
            Resources& resources = m_ofCommands[command];
            resources.isAll = resources.isAll || rule.resources.empty();
            for (const auto& [glob, patterns] : rule.resources) {
                resources.globs.insert(0, glob, patterns); // which one lets him does not matter
            }
        }
    }
}

bool Gate::lets(std::string_view command, std::string_view resource)
{
    const auto ofCommand = m_ofCommands.find(command);
    const auto ofAll = m_ofCommands.find(Rule::ANYTHING);
    bool mayMatch = false;
    for (const auto& found : {ofCommand, ofAll}) {
        if (found != m_ofCommands.end()) {
            if (found->second.isAll) {
                return true;
            }
            mayMatch = true;
        }
    }
    const std::string path = mayMatch ? resourcePath(resource) : std::string();
    m_matching.clear();
    for (const auto& found : {ofCommand, ofAll}) {
        if (!path.empty() && m_matching.empty() && found != m_ofCommands.end()) {
            found->second.globs.match(path, m_matching);
        }
    }
    return !m_matching.empty();
}

} // namespace kesa::access
