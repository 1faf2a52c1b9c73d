#ifndef KESACTL_PRINT_SERVICES_H
#define KESACTL_PRINT_SERVICES_H

#include "RegistryView.h"

#include <string>

namespace kesactl {

// Lines for people, each with its end.

/// A heading and one aligned line per service.
std::string asTable(const Services& services);
/// The paths as a tree; what is a service has its type and provider behind it.
std::string asTree(const Services& services);
/// All that is known of one service.
std::string asDetails(const ServiceDef& service);

/// One line of JSON, without its end: the record as it is on the wire. A `Failure` when that has no form in JSON.
std::string asJson(const ServiceDef& service);

/// The process that has registered it: as the record says, else as its locator does.
std::string providerOf(const ServiceDef& service);

/// To stdout: a table, or one JSON line per service.
void print(const Services& services, bool isJson);

} // namespace kesactl

#endif
