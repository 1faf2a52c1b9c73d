#ifndef KESA_TESTS_ACTOR_DOCUMENT_H
#define KESA_TESTS_ACTOR_DOCUMENT_H

#include <string>
#include <vector>

namespace kesa::actor {

/// A configuration document: with the registry, or without. `services`: locators of services, under their paths;
/// `comm`: its "comm"; `access`: its "access", from the second line on, or empty.
inline std::string document(bool hasRegistry, const std::vector<std::string>& services, const std::string& comm,
                            const std::string& access = {})
{
    std::string text = std::string(R"({"use_registry": )") + (hasRegistry ? "true" : "false") +
                       R"(, "service_registry_locators": {"*": ["ipc://kesa-registryd/registry"]}, )" +
                       R"("backends": ["comm"], "comm": )" + comm + R"(, "services": [)";
    const char* separator = "";
    for (const std::string& service : services) {
        const std::size_t path = service.find('/', service.find("://") + 3);
        text.append(separator).append(R"({"path": ")" + service.substr(path) + R"(", "type": "pex", )");
        text.append(R"("version": "1.0.0", "locators": [")" + service.substr(0, path) + R"("]})");
        separator = ", ";
    }
    return text + ']' + (access.empty() ? "" : ",\n\"access\": " + access) + "}\n";
}

} // namespace kesa::actor

#endif
