#ifndef KESACTL_REGISTRYPOLICY_H
#define KESACTL_REGISTRYPOLICY_H

#include <comm/Clock.h>
#include <kesa/serviceregistry/ServiceDef.h>
#include <kesa/url.h>
#include <util/config/Value.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace kesactl {

/// What a registry says of its policy, as docs/protocol_registry.md has it; undefined when it says nothing, as one of
/// an earlier version, or has not answered by the deadline. Needs a `System`.
util::config::Value askPolicy(const kesa::url& registry, comm::TimeNs deadline);

/// What a registry says of what `whom`, a process or a user, may at a path as that user: `register` and `see`, each
/// with `allowed` and `because`. Undefined when there is none, it is kept from this user, or the registry does not
/// answer. Needs a `System`.
util::config::Value askMay(const kesa::url& registry, const std::string& whom, std::int64_t uid,
                           const std::string& path, comm::TimeNs deadline);

/// The command that says the same to a person: "kesactl may media see /media/player"; "root's " before it when this
/// user is not told. `uid`: of which user `whom` is, or whose process.
std::string mayCommand(const std::string& whom, std::int64_t uid, std::string_view right, const std::string& path);

/// "3 rules of /etc/kesa/kesa.json, read at 12:00:00"; empty of one that says nothing.
std::string policyText(const util::config::Value& policy);

/// "it could not be read again at 12:00:00: ..., so that of before counts", and what to do; empty when it could.
std::string policyFailure(const util::config::Value& policy);

/// Who sees a service: "everybody: it is public".
std::string seenBy(const kesa::serviceregistry::ServiceDef& service, const util::config::Value& policy);

} // namespace kesactl

#endif
