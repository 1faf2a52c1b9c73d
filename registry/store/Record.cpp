#include "store/Record.h"

#include <kesa/core/Serializer.h>
#include <kesa/mimetypes.h>
#include <util/serializer/WireMeter.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

namespace kesa::registry {

namespace {

constexpr std::size_t USUAL_BYTES = 1024; ///< of what is written: nearly nothing is longer

/// True is failure.
template <class T>
[[nodiscard]] bool writeMeasured(const T& value, util::ByteBufferWriter& json, std::size_t& bytes)
{
    thread_local util::serializer::WireMeter meter; // what it keeps is used again
    return serializer::serialize(meter.begin(json), value) || meter.end(bytes);
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

bool write(const ServiceDef& serviceDef, Payload& json, std::size_t& bytes)
{
    util::ByteBufferWriter written(USUAL_BYTES);
    const bool failed = writeMeasured(serviceDef, written, bytes);
    json = Payload::createFromWriter(std::move(written), mimetypes::JSON);
    return failed;
}

bool measure(const Query& query, std::size_t& bytes)
{
    util::ByteBufferWriter written(USUAL_BYTES);
    return writeMeasured(query, written, bytes);
}

RegistryUpdate makeUpdate(UpdateType type, const RecordPtr& record)
{
    // Updates hold their element as if it could be changed; nobody does.
    return {type, std::shared_ptr<ServiceDef>(record, const_cast<ServiceDef*>(&record->serviceDef))};
}

} // namespace kesa::registry
