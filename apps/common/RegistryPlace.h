#ifndef KESA_APPS_COMMON_REGISTRYPLACE_H
#define KESA_APPS_COMMON_REGISTRYPLACE_H

#include <kesa/serviceregistry/ServiceDef.h>
#include <kesa/url.h>

#include <map>
#include <string>
#include <vector>

namespace apps {

/// Where a process would find the registry, as its start finds it: by its document and the partition of its node.
struct RegistryPlace {
    std::string source;              ///< the document's file, or "the built-in document"
    std::vector<kesa::url> locators; ///< in order; empty when `problem` is not
    std::string partition;           ///< of this process's node
    /// Of the other partitions that the document names, "*" among them.
    std::map<std::string, std::vector<kesa::url>> others;
    std::string problem;      ///< why there are none, as a sentence with what to do
    bool endsProcess = false; ///< a runtime does not start with that problem
    bool asksForNone = false; ///< that is the problem: what the document has itself is all there is
    std::vector<kesa::serviceregistry::ServiceDef> services; ///< then those that it has
};

/// `fallbackDocument` counts when there is no configuration file at all.
RegistryPlace findRegistryPlace(const std::string& process, const std::string& fallbackDocument);

} // namespace apps

#endif
