#ifndef KESACTL_WHYABSENT_H
#define KESACTL_WHYABSENT_H

#include "Verdict.h"
#include "policyNow.h"
#include "providersHere.h"

#include <common/RegistryPlace.h>

namespace kesactl {

/// Why nobody provides a path, by what the registry tells of it. `registry`: the name of the registry's process.
Verdict explainAbsence(const util::config::Value& explanation, const std::string& registry, PolicyNow& policy);

/// Of a path that somebody holds whom this user may not see. `provider`: the process here that says to provide it.
/// `policy`: as of `askPolicy`.
Verdict explainHidden(const util::config::Value& explanation, const std::optional<ProviderHere>& provider,
                      const util::config::Value& policy);

/// Of a path that nobody has registered at the registry of `place`, and that a process of this run directory provides
/// nevertheless. `see`: what the policy says of whether this user may see it; undefined when that is not known.
Verdict explainHereOnly(const ProviderHere& provider, const std::string& path, const apps::RegistryPlace& place,
                        const util::config::Value& policy, const util::config::Value& see);

/// Of a path that nobody has registered, as `verdict` says: whether a process that a handler holds may be its provider,
/// or one of which that cannot be known.
Verdict explainHeldOr(Verdict verdict, const ProcessesHere& here);

/// Whether the last one that had a path, or was refused it, runs no more.
bool hasProviderEnded(const util::config::Value& explanation);

/// Of a path whose provider runs no more, as `verdict` says: whether it runs again without it. `here`: what all say;
/// `again`: what those of its name say.
Verdict explainAfterEnd(Verdict verdict, const util::config::Value& explanation, ProcessesHere here,
                        const ProcessesHere& again, const kesa::url& registry);

/// Of a process that a handler holds. `so`: what comes of it.
Verdict explainHeld(const HeldProcess& process, const std::string& so);

/// The events of a path, each as a sentence; but the last ones.
std::vector<std::string> notesOf(const util::config::Value& explanation, std::size_t withoutLast);

} // namespace kesactl

#endif
