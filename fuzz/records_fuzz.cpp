// Any bytes as a record in any format: an error with a reason, or a record that comes back the same when it is written
// and read again. The first byte chooses format and record.
#include "require.h"

#include <kesa/core/PayloadConversion.h>

#include <cstddef>
#include <cstdint>

namespace {

using namespace kesa;
using serviceregistry::Query;
using serviceregistry::RegistryUpdate;
using serviceregistry::ServiceDef;

bool same(const ServiceDef& a, const ServiceDef& b)
{
    return a == b;
}

bool same(const Query& a, const Query& b)
{
    return a == b;
}

bool same(const std::vector<RegistryUpdate>& a, const std::vector<RegistryUpdate>& b)
{
    require(a.size() == b.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        require(a[i].updateType == b[i].updateType && same(*a[i].element, *b[i].element));
    }
    return true;
}

template <class T>
void check(const Payload& payload)
{
    T value;
    if (serializer::readPayload(payload, value)) {
        require(!obr::ErrorStorage::reason().empty());
        return;
    }
    for (const std::string_view format : {mimetypes::JSON, mimetypes::MSGPACK, mimetypes::QELBIN}) {
        const auto written = serializer::toPayload(value, format);
        require(written.has_value());
        T again;
        require(!serializer::readPayload(*written, again));
        require(same(value, again));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    constexpr std::string_view FORMATS[] = {mimetypes::JSON, mimetypes::MSGPACK, mimetypes::QELBIN};
    const Payload payload(nullptr, data + 1, size - 1, FORMATS[data[0] % 3]);
    switch (data[0] / 3 % 3) {
    case 0:
        check<ServiceDef>(payload);
        break;
    case 1:
        check<Query>(payload);
        break;
    default:
        check<std::vector<RegistryUpdate>>(payload);
        break;
    }
    return 0;
}
