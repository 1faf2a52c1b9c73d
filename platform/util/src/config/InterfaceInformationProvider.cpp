#include "configurationPlace.h"
#include "readDocument.h"

#include <tracing/Channel.h>
#include <util/config/Dictionary.h>
#include <util/config/InterfaceInformationProvider.h>
#include <util/config/Provider.h>

#include <mutex>

namespace util::config {

struct InterfaceInformationProvider::State {
    std::mutex mutex; // guards all below
    bool isRead = false;
    Value document;

    Value get()
    {
        const std::lock_guard lock(mutex);
        if (!isRead) {
            isRead = true;
            document = read();
        }
        return document;
    }

    static Value read()
    {
        const std::string file = Provider::folder(CONFIGURATION_NAME, CONFIGURATION_PATH) + "/interfaces.json";
        Value result;
        std::vector<Complaint> complaints;
        if (readDocument(file, result, complaints) == Reading::eFAILED) {
            tracing::Channel("KESA_UTIL_CONFIG")
                .log(4, "[InterfaceInformationProvider] " + complaints.back().sentence(file));
        }
        return result;
    }
};

InterfaceInformationProvider::InterfaceInformationProvider() : m_state(new State) {}

InterfaceInformationProvider& InterfaceInformationProvider::instance()
{
    static InterfaceInformationProvider* const provider = new InterfaceInformationProvider;
    return *provider;
}

bool InterfaceInformationProvider::getInterfaceVersion(const std::string& word, const std::string& service,
                                                       std::vector<std::string>& versions) const
{
    const Value document = m_state->get();
    const Value& declared = document[word][service];
    if (!declared.isArray()) {
        return true;
    }
    std::vector<std::string> result;
    for (const Value& version : declared.items()) {
        if (version.get(result.emplace_back())) {
            return true;
        }
    }
    versions = std::move(result);
    return false;
}

void InterfaceInformationProvider::forgetForTest()
{
    const std::lock_guard lock(m_state->mutex);
    m_state->isRead = false;
    m_state->document = Value();
}

} // namespace util::config
