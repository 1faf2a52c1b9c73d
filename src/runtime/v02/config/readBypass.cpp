// "bypass": which services a client reaches without the registry.
#include "ConfigNode.h"
#include "KesaConfig.h"

#include <kesa/Path.h>

namespace kesa::runtime::v02 {
namespace {

constexpr const char* ADVICE_ON_LIST = R"(write a list of service paths such as ["/registry"])";
constexpr const char* ADVICE_ON_PATH = R"(write the path of a service such as "/registry")";

bool readBypassPaths(const std::string& client, const ConfigNode& list, std::vector<std::string>& paths)
{
    const std::string who = "client='" + util::config::excerpt(client) + "' ";
    if (!list.value().isArray()) {
        return list.failAs(list.mismatch("a list"), 3, "readBypass", who + "value is not an array", ADVICE_ON_LIST,
                           "client not mapped to an array");
    }
    return list.readElements([&](const ConfigNode& element, std::size_t index) {
        const std::string what = who + "value at index " + std::to_string(index);
        std::string path;
        if (element.value().get(path)) {
            return element.failAs(element.mismatch("a text"), 3, "readBypass", what + " is not a string",
                                  ADVICE_ON_PATH, "invalid service path in bypass");
        }
        if (!Path::isAbsolute(path)) {
            return element.fail(3, "readBypass", what + " is not an absolute path", ADVICE_ON_PATH,
                                "service path not absolute");
        }
        paths.push_back(std::move(path));
        return false;
    });
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
               bypass.failAs(bypass.mismatch("an object"), 4, "readConfig", "bypass is not a dictionary",
                             R"(write lists of service paths by process, such as {"media": ["/registry"]})");
    }
    return bypass.readMembers([this](const std::string& client, const ConfigNode& list) {
        std::vector<std::string> paths;
        if (readBypassPaths(client, list, paths)) {
            return true;
        }
        tracePaths(client, paths);
        m_bypass.emplace(client, std::move(paths));
        return false;
    });
}

} // namespace kesa::runtime::v02
