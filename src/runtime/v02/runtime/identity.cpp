#include <runtime/v02/runtime/identity.h>

#include <kesa/serviceregistry/MetainfoKeys.h>

namespace kesa::runtime::v02 {

using serviceregistry::ServiceDef;

const std::string& providerKey()
{
    static const std::string& key = *new std::string(enumToValue(serviceregistry::MetainfoKeys::provider).value_or(""));
    return key;
}

std::string_view providerOf(const ServiceDef& service)
{
    return service.metainfo ? (*service.metainfo)[providerKey()].stringView() : std::string_view();
}

bool isSameRegistration(const ServiceDef& a, const ServiceDef& b)
{
    const bool isSameId = !a.id || !b.id || a.id->compare(*b.id) == 0;
    const std::string_view providerOfA = providerOf(a);
    const std::string_view providerOfB = providerOf(b);
    const bool isSameProvider = providerOfA.empty() || providerOfB.empty() || providerOfA == providerOfB;
    return isSameId && isSameProvider && a.locators == b.locators;
}

} // namespace kesa::runtime::v02
