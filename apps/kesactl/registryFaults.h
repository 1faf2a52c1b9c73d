#ifndef KESACTL_REGISTRYFAULTS_H
#define KESACTL_REGISTRYFAULTS_H

#include "explainUnreachable.h"

#include <kesa/Response.h>
#include <kesa/serviceregistry/RegistryUpdate.h>
#include <kesa/url.h>
#include <util/config/Value.h>

#include <string>
#include <string_view>
#include <vector>

namespace kesactl {

// Somebody answers at the registry's locator, but not as docs/protocol_registry.md says: some other program has its
// name, or the registry itself has failed.

/// "answers, but not as a registry does: ...". `what` is wrong with the answer.
Unreached explainFault(const kesa::url& registry, const std::string& what);

/// What is wrong with an error as an answer; empty when a registry may answer that.
std::string faultOf(const kesa::Response& error);

/// Reads what a query is answered. What is wrong with it; empty: nothing, and `updates` are those of the answer.
std::string readUpdates(const kesa::Response& answer, std::vector<kesa::serviceregistry::RegistryUpdate>& updates);

/// The same for what "explain" is answered.
std::string readExplanation(const kesa::Response& answer, util::config::Value& explanation);

} // namespace kesactl

#endif
