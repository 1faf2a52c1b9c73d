#include "configurationPlace.h"
#include "readDocument.h"

#include <obr/ErrorOutput.h>
#include <obr/environment.h>
#include <obr/errors.h>
#include <util/config/Dictionary.h>
#include <util/config/FrameworkProvider.h>
#include <util/config/Provider.h>

namespace util::config {
namespace {

constexpr const char* DEFAULT_NODE = "local"; // not the host's name, which changes during boot

bool refuse(const std::string& problem)
{
    return obr::ErrorOutput(__FILE__, __LINE__, true)(obr::errors::Error, obr::errors::TEXT, problem);
}

} // namespace

bool FrameworkProvider::getNodenameForProcess(const std::string& process, std::string& partition)
{
    if (std::string node = obr::environment("KESA_NODE"); !node.empty()) {
        partition = std::move(node);
        return false;
    }
    const std::string file = Provider::folder(CONFIGURATION_NAME, CONFIGURATION_PATH) + "/framework.json";
    Value document;
    std::vector<Complaint> complaints;
    switch (readDocument(file, document, complaints)) {
    case Reading::eMISSING:
        partition = DEFAULT_NODE;
        return false;
    case Reading::eFAILED:
        return refuse(complaints.back().sentence(file));
    case Reading::eREAD:
        break;
    }
    if (!document.isDictionary()) {
        return refuse(
            file +
            ": its root is not an object of process names and node names; write one such as {\"*\": \"node-1\"}");
    }
    const std::string key = document[process].isDefined() ? process : "*";
    const Value& node = document[key];
    if (!node.isDefined()) {
        partition = DEFAULT_NODE;
        return false;
    }
    return node.get(partition) &&
           refuse(file + ": the node of '" + key + "' is not a string; write its name in double quotes");
}

} // namespace util::config
