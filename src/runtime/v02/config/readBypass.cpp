// "bypass": which services a client reaches without the registry.
#include "ConfigNode.h"
#include "KesaConfig.h"

#include <kesa/Path.h>

namespace kesa::runtime::v02 {
namespace {

/// Answers whether the element is no absolute path.
bool readBypassPath(const std::string& client, const ConfigNode& element, std::size_t index, std::string& path)
{
    if (element.value().get(path)) {
        return element.fail(3, "invalid service path in bypass",
                            "[readBypass] client='{}' value at index {} is not a string", client, index);
    }
    return !Path::isAbsolute(path) &&
           element.fail(3, "service path not absolute",
                        "[readBypass] client='{}' value at index {} is not an absolute path", client, index);
}

bool readBypassPaths(const std::string& client, const ConfigNode& list, std::vector<std::string>& paths)
{
    if (!list.value().isArray()) {
        return list.fail(3, "client not mapped to an array", "[readBypass] client='{}' value is not an array", client);
    }
    for (std::size_t i = 0; i < list.value().arraySize(); ++i) {
        std::string path;
        if (readBypassPath(client, list[i], i, path)) {
            return true;
        }
        paths.push_back(std::move(path));
    }
    return false;
}

void tracePaths(const std::string& client, const std::vector<std::string>& paths)
{
    if (!configChannel().isEnabled(1)) {
        return;
    }
    std::string text;
    for (const std::string& path : paths) {
        text.append(path).append(", ");
    }
    configChannel().logCV(1, "[readBypass] client='%s' can bypass following services='%s'", client.c_str(),
                          text.c_str());
}

} // namespace

bool KesaConfig::readBypass(const ConfigNode& root)
{
    const ConfigNode bypass = root["bypass"];
    if (!bypass.value().isDictionary()) {
        return bypass.value().isDefined() &&
               bypass.fail(4, "bypass is not a dictionary", "[readConfig] bypass is not a dictionary");
    }
    for (const auto& [client, value] : bypass.value()) {
        std::vector<std::string> paths;
        if (readBypassPaths(client, bypass[client], paths)) {
            return true;
        }
        tracePaths(client, paths);
        m_bypass.emplace(client, std::move(paths));
    }
    return false;
}

} // namespace kesa::runtime::v02
