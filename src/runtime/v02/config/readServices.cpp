// "services": the statically configured ones.
#include "ConfigNode.h"
#include "KesaConfig.h"

#include <kesa/Path.h>
#include <kesa/serviceregistry/MetainfoKeys.h>
#include <kesa/toGeneric.h>

namespace kesa::runtime::v02 {
namespace {

using serviceregistry::MetainfoKeys;
using serviceregistry::ServiceDef;

/// No service has a longer one; and each locator without a path gets it.
constexpr std::size_t MAX_PATH_SIZE = 4096;

constexpr const char* ADVICE_ON_LOCATOR = R"(write an absolute locator such as "ipc://process/path", without a query)";

bool readServicePath(const ConfigNode& node, std::string& path)
{
    std::string text;
    if (node.get(text, R"(write a path such as "/media/player")")) {
        return true;
    }
    if (text.size() > MAX_PATH_SIZE) {
        return node.fail("service path longer than 4096 bytes", "shorten it");
    }
    if (!Path::isAbsolute(text)) {
        return node.fail("service path not absolute", "begin it with '/'");
    }
    path = std::move(text);
    return false;
}

/// Versions are a list, of which the document can name one.
bool readVersion(const ConfigNode& node, std::vector<std::string>& versions)
{
    if (!node.value().isDefined()) {
        return false;
    }
    std::string version;
    if (node.get(version, R"(write one such as "1.0.0", or leave it out)")) {
        return true;
    }
    versions.push_back(std::move(version));
    return false;
}

bool readType(const ConfigNode& node, std::string& text, ServiceDef::TypeEnum& type)
{
    const char* const known = R"(known are "pex", "lomo", "gateway" and "registry")";
    return node.get(text, known) || (ServiceDef::valueToEnum(text, type) && node.fail("service type unknown", known));
}

bool readLocators(const ConfigNode& node, const std::string& path, std::vector<url>& locators)
{
    if (!node.value().isArray()) {
        return node.fail("locators is not array", "write a list of locators such as [\"ipc://process\"]",
                         node.value().isDefined() ? node.mismatch("a list") : "is missing");
    }
    return node.readStrings(ADVICE_ON_LOCATOR, [&](const std::string& text, const ConfigNode& element, std::size_t) {
        url locator(text);
        // The path is appended to the text: behind a query or fragment it would become part of that.
        if (!locator.isAbsolute() || (locator.path().empty() && locator.hasQueryOrFragment())) {
            return element.fail("service locator is not an url", ADVICE_ON_LOCATOR);
        }
        if (locator.path().empty() && !path.empty()) {
            locator.init(text + path);
            if (locator.path() != path) {
                element.warn("readConfig",
                             "'" + util::config::excerpt(locator.toString()) +
                                 "' leads nowhere: not every character of the path may stand in a locator",
                             "write the whole locator, with the path percent-encoded");
            }
        }
        locators.push_back(std::move(locator));
        return false;
    });
}

} // namespace

bool KesaConfig::readServices(const ConfigNode& root)
{
    const ConfigNode services = root["services"];
    if (!services.value().isArray()) {
        return services.value().isDefined() &&
               services.failAs(services.mismatch("a list"), 4, "readConfig", "services is not array",
                               "write [ ... ] around the services");
    }
    m_services.clear();
    return services.readElements([this](const ConfigNode& entry, std::size_t) { return readService(entry); });
}

bool KesaConfig::readService(const ConfigNode& entry)
{
    if (entry.isNoDictionary(R"(write one such as {"path": "/media", "type": "pex", "locators": ["ipc://media"]})")) {
        return true;
    }
    const ConfigNode dynamic = entry["is_dynamic"];
    if (dynamic.value().isDefined()) {
        bool isDynamic = false;
        if (dynamic.get(isDynamic)) {
            return true;
        }
        KESA_TRACE(configChannel(), 2, "[readConfig] %s=%d", "is_dynamic", isDynamic ? 1 : 0);
        if (isDynamic) {
            return false; // registered by its process when it runs
        }
    }
    std::string path;
    std::vector<std::string> versions;
    std::string typeText;
    ServiceDef::TypeEnum type{};
    std::vector<url> locators;
    if (entry.inTurn([&] { return readServicePath(entry["path"], path); },
                     [&] { return readVersion(entry["version"], versions); },
                     [&] { return readType(entry["type"], typeText, type); },
                     [&] { return readLocators(entry["locators"], path, locators); })) {
        return true;
    }
    KESA_TRACE(configChannel(), 2, "[readConfig] service: path=%s, type=%s, loc#=%zu version='%s'", path.c_str(),
               typeText.c_str(), locators.size(), versions.empty() ? "" : versions.front().c_str());
    ServiceDef service(Path(path), type, versions, std::move(locators));
    service.metainfo = GenericObject{{*enumToValue(MetainfoKeys::versions), toGeneric(versions)}};
    const auto ownRule = m_serializers.find(path);
    service.serializationFormats = ownRule != m_serializers.end() ? ownRule->second : m_serializers.at("*");
    m_services.push_back(std::move(service));
    return false;
}

} // namespace kesa::runtime::v02
