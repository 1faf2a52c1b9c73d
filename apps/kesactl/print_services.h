#ifndef KESACTL_PRINT_SERVICES_H
#define KESACTL_PRINT_SERVICES_H

#include "RegistryView.h"

#include <string>
#include <vector>

namespace kesactl {

// Lines for people, each with its end.

/// A heading and one aligned line per service. `columns` are known ones.
std::string asTable(const Services& services,
                    const std::vector<std::string>& columns = {"path", "type", "versions", "provider", "locators"});
/// For `CLI::Option::check`: what is wrong with the name of a column, or empty.
std::string checkColumn(const std::string& name);
/// The paths as a tree; what is a service has its type and provider behind it.
std::string asTree(const Services& services);
/// All that is known of one service.
/// `seenBy`: who may see it; empty: that is not known.
std::string asDetails(const ServiceDef& service, const std::string& seenBy);

/// One line of JSON, without its end: the record as it is on the wire. A `Failure` when that has no form in JSON.
std::string asJson(const ServiceDef& service);

/// The process that has registered it: as the record says, else as its locator does.
std::string providerOf(const ServiceDef& service);

/// One such line per service, each with its end.
std::string asJsonLines(const Services& services);

} // namespace kesactl

#endif
