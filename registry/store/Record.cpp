#include "store/Record.h"

#include <kesa/core/Serializer.h>
#include <util/serializer/formats.h>

#include <algorithm>
#include <string_view>

namespace kesa::registry {

namespace {

using util::serializer::Format;

template <class T>
[[nodiscard]] bool measureForms(const T& value, std::size_t& bytes)
{
    std::size_t longest = 0;
    for (const Format format : {Format::eJSON, Format::eQELBIN}) {
        util::ByteBufferWriter out(1024);
        const auto serializer = util::serializer::makeSerializer(format);
        bool hasContent = false;
        if (serializer->attach(out) || serializer::serialize(*serializer, value) || serializer->finish(hasContent)) {
            return true;
        }
        longest = std::max(longest, out.size());
    }
    bytes = longest;
    return false;
}

/// An `ipc` locator without a realm means the realm of whoever reads it.
bool isReachable(const url& locator, std::string_view realm)
{
    if (locator.scheme() != "ipc") {
        return true;
    }
    const std::string_view authority = locator.authority();
    const std::size_t plus = authority.find('+');
    return plus == std::string_view::npos || authority.substr(plus + 1) == realm;
}

} // namespace

bool isVisible(const ServiceDef& serviceDef, const Realm& realm)
{
    const auto& locators = serviceDef.locators;
    return !realm || locators.empty() || std::any_of(locators.begin(), locators.end(), [&realm](const url& locator) {
        return isReachable(locator, *realm);
    });
}

bool measure(const ServiceDef& serviceDef, std::size_t& bytes)
{
    return measureForms(serviceDef, bytes);
}

bool measure(const Query& query, std::size_t& bytes)
{
    return measureForms(query, bytes);
}

RegistryUpdate makeUpdate(UpdateType type, const RecordPtr& record)
{
    // Updates hold their element as if it could be changed; nobody does.
    return {type, std::shared_ptr<ServiceDef>(record, const_cast<ServiceDef*>(&record->serviceDef))};
}

} // namespace kesa::registry
