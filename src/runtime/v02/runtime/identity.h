#ifndef KESA_RUNTIME_V02_IDENTITY_H
#define KESA_RUNTIME_V02_IDENTITY_H

#include <kesa/serviceregistry/ServiceDef.h>

#include <string>
#include <string_view>

namespace kesa::runtime::v02 {

/// The key of the metainfo that names the provider.
const std::string& providerKey();

/// The process that the record names as the provider; empty when the registry kept the metainfo back.
std::string_view providerOf(const serviceregistry::ServiceDef& service);

/// Whether two records of a path are of the same registration, however else they differ: equal locators, id and
/// provider. An id or a provider that one of them does not state makes no difference.
bool isSameRegistration(const serviceregistry::ServiceDef& a, const serviceregistry::ServiceDef& b);

} // namespace kesa::runtime::v02

#endif
