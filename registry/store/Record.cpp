#include "store/Record.h"

#include <kesa/core/Serializer.h>
#include <util/serializer/formats.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

namespace kesa::registry {

namespace {

using util::serializer::Format;

/// Writes values only to see how long they get.
class Scale {
public:
    template <class T>
    [[nodiscard]] bool measure(const T& value, std::size_t& bytes)
    {
        std::size_t longest = 0;
        for (const auto& form : m_forms) {
            m_out.clear();
            form->reset();
            bool hasContent = false;
            if (form->attach(m_out) || serializer::serialize(*form, value) || form->finish(hasContent)) {
                return true;
            }
            longest = std::max(longest, m_out.size());
        }
        bytes = longest;
        return false;
    }

    /// One per thread: what it writes into is kept.
    static Scale& here()
    {
        thread_local Scale scale;
        return scale;
    }

private:
    util::ByteBufferWriter m_out{1024};
    const std::array<std::unique_ptr<serializer::IStructuredSerializer>, 2> m_forms{
        util::serializer::makeSerializer(Format::eJSON), util::serializer::makeSerializer(Format::eQELBIN)};
};

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
    return Scale::here().measure(serviceDef, bytes);
}

bool measure(const Query& query, std::size_t& bytes)
{
    return Scale::here().measure(query, bytes);
}

RegistryUpdate makeUpdate(UpdateType type, const RecordPtr& record)
{
    // Updates hold their element as if it could be changed; nobody does.
    return {type, std::shared_ptr<ServiceDef>(record, const_cast<ServiceDef*>(&record->serviceDef))};
}

} // namespace kesa::registry
