// "smartProxy". A value that is no object is read like an empty one.
#include "ConfigNode.h"
#include "KesaConfig.h"

#include <algorithm>
#include <cstdint>

namespace kesa::runtime::v02 {
namespace {

using Codes = std::vector<std::uint32_t>;

bool readUIntArray(const ConfigNode& proxy, const char* key, Codes& codes)
{
    const ConfigNode list = proxy[key];
    if (!list.value().isArray()) {
        return list.value().isDefined() &&
               list.failAs(list.mismatch("a list"), 4, "readConfig", std::string(key) + " is not array",
                           "write a list of numbers such as [500, 503]", "key is not array");
    }
    const bool failed = list.readElements([&](const ConfigNode& element, std::size_t index) {
        unsigned int code = 0;
        if (element.get(code)) {
            return true;
        }
        codes.push_back(code);
        KESA_TRACE(configChannel(), 2, "[readConfig] %s[%zu]=%d", key, index, static_cast<int>(code));
        return false;
    });
    if (codes.empty()) {
        return list.fail(4, "readConfig", std::string(key) + " configured but it is an empty array",
                         "name a number, or leave the key out", "key was configured but it is an empty array");
    }
    return failed; // without a text of its own: the list broke off after a good beginning
}

void storeUnlessEmpty(Codes&& codes, optional<Codes>& stored)
{
    if (!codes.empty()) {
        stored = std::move(codes);
    }
}

void removeCode(optional<Codes>& list, std::uint32_t code, const char* name)
{
    if (!list) {
        return;
    }
    const auto found = std::find(list->begin(), list->end(), code);
    if (found != list->end()) {
        list->erase(found);
        KESA_TRACE(configChannel(), 2, "[readConfig] %d is in mandatoryForwardErrors and %s erase it",
                   static_cast<int>(code), name);
    }
}

void resetIfEmpty(optional<Codes>& list)
{
    if (list && list->empty()) {
        list.reset();
    }
}

} // namespace

bool KesaConfig::readSmartProxy(const ConfigNode& root)
{
    const ConfigNode proxy = root["smartProxy"];
    if (!proxy.value().isDefined()) {
        return false;
    }
    const bool failed = proxy.inTurn([&] { return readTimeout(proxy); }, [&] { return readProxyLists(proxy); });
    removeForwardedErrors();
    return failed;
}

bool KesaConfig::readTimeout(const ConfigNode& proxy)
{
    const ConfigNode node = proxy["timeout"];
    if (!node.value().isDefined()) {
        return false;
    }
    int timeout = 0;
    if (node.value().get(timeout)) {
        return node.failAs(node.mismatch("a whole number of at most 2147483647"), 3, "readConfig", "timeout not int",
                           "write one without quotation marks");
    }
    m_proxyConfig.m_timeout = timeout;
    KESA_TRACE(configChannel(), 2, "[readConfig] %s=%d", "timeout", timeout);
    return false;
}

/// Stores all lists or none.
bool KesaConfig::readProxyLists(const ConfigNode& proxy)
{
    Codes retryTimes;
    Codes forwardErrors;
    Codes subscribeList;
    Codes subscribeElement;
    if (proxy.inTurn([&] { return readUIntArray(proxy, "retryTimes", retryTimes); },
                     [&] { return readUIntArray(proxy, "mandatoryForwardErrors", forwardErrors); },
                     [&] { return readUIntArray(proxy, "mandatroyRetryErrorsSubscribeList", subscribeList); },
                     [&] { return readUIntArray(proxy, "mandatroyRetryErrorsSubscribeElement", subscribeElement); })) {
        return true;
    }
    storeUnlessEmpty(std::move(retryTimes), m_proxyConfig.m_retryTimes);
    storeUnlessEmpty(std::move(forwardErrors), m_proxyConfig.m_mandatoryForwardErrors);
    storeUnlessEmpty(std::move(subscribeList), m_proxyConfig.m_mandatroyRetryErrorsSubscribeList);
    // Unlike the others this list is there, though empty, when its key is not: who reads the settings tells "no
    // retries for an element" from "no smart proxy" by it.
    m_proxyConfig.m_mandatroyRetryErrorsSubscribeElement = std::move(subscribeElement);
    return false;
}

/// An error that must be forwarded is never retried.
void KesaConfig::removeForwardedErrors()
{
    if (!m_proxyConfig.m_mandatoryForwardErrors) {
        return;
    }
    auto& list = m_proxyConfig.m_mandatroyRetryErrorsSubscribeList;
    auto& element = m_proxyConfig.m_mandatroyRetryErrorsSubscribeElement;
    for (const std::uint32_t code : *m_proxyConfig.m_mandatoryForwardErrors) {
        removeCode(list, code, "m_mandatroyRetryErrorsSubscribeList");
        removeCode(element, code, "m_mandatroyRetryErrorsSubscribeElement");
    }
    resetIfEmpty(list);
    resetIfEmpty(element);
}

} // namespace kesa::runtime::v02
