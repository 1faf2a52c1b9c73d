#ifndef KESACTL_EXPLAINNOREGISTRY_H
#define KESACTL_EXPLAINNOREGISTRY_H

#include "Verdict.h"
#include "explainUnreachable.h"

#include <common/RegistryPlace.h>
#include <kesa/url.h>

#include <string>

namespace kesactl {

/// "start kesa-registryd". Another name than the daemon's own is mostly that of a program that is the registry itself.
std::string howToStart(const kesa::url& registry);

/// Why nobody answers at the registry's locator, and where there is a registry instead: here under another name, that
/// of another partition, or in another run directory. Blocks, at most for `within`.
Unreached explainNoRegistry(const kesa::url& registry, comm::TimeNs within);

/// Of a service, where the document of this process names no registry that it could ask: then what the document itself
/// provides is all there is. Blocks, at most for `within`.
Verdict explainWithoutRegistry(const apps::RegistryPlace& place, const std::string& path, comm::TimeNs within);

} // namespace kesactl

#endif
