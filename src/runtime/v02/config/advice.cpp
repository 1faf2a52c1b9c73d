#include "advice.h"

namespace kesa::runtime::v02 {
namespace {

struct Advice {
    std::string_view complaint; ///< its beginning
    std::string_view text;
};

constexpr Advice TABLE[] = {
    {"config file contains no dictionary", "the document must be an object: { ... }"},
    {"local registy not bool", "write true or false"},
    {"(remote) registy not bool", "write true or false"},
    {"unknown registry locator", "write a locator such as \"ipc://kesa-registryd/registry\""},
    {"registry locator is not array", "write [ ... ] around the locators"},
    {"unknown backend", "known are \"comm\" and \"local\""},
    {"no backend configured", "name \"comm\", or leave the key out"},
    {"backends is not array", "write [\"comm\"]"},
    {"unknown serializer-format", "known are \"application/json\" and \"application/vnd.qelbin\""},
    {"no serializer-format configured", "write a list such as [\"application/json\"]"},
    {"serializer-formats is neither", "write a list of formats, or an object of such lists by service path"},
    {"services is not array", "write [ ... ] around the services"},
    {"service path not absolute", "begin it with '/'"},
    {"service type unknown", "known are \"pex\", \"lomo\", \"gateway\" and \"registry\""},
    {"locators is not array", "write a list of locators such as [\"ipc://process\"]"},
    {"service locator is not an url", "write an absolute locator such as \"ipc://process/path\", without a query"},
    {"bypass is not a dictionary", "write an object: lists of service paths by process name"},
    {"timeout not int", "write a whole number"},
    {"node_domain_mapping is not a dictionary", "write an object: domains by node name"},
};

} // namespace

std::string_view adviceFor(std::string_view complaint)
{
    for (const Advice& advice : TABLE) {
        if (complaint.substr(0, advice.complaint.size()) == advice.complaint) {
            return advice.text;
        }
    }
    return {};
}

std::string sentenceOf(const ConfigReport::Complaint& complaint, const std::string& source)
{
    std::string sentence;
    if (!complaint.path.empty()) {
        sentence.append(source).append(": ").append(complaint.path).append(": ");
    }
    sentence.append(complaint.text);
    if (const std::string_view advice = adviceFor(complaint.text); !advice.empty()) {
        sentence.append(": ").append(advice);
    }
    return sentence;
}

} // namespace kesa::runtime::v02
