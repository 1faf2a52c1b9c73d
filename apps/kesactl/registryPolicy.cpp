#include "registryPolicy.h"

#include "Answers.h"
#include "ProcessReport.h"
#include "ServiceConnection.h"
#include "output.h"
#include "peerText.h"
#include "processNames.h"
#include "registryFaults.h"

#include <kesa/headers.h>
#include <kesa/mimetypes.h>
#include <kesa/responsesemantics.h>
#include <kesa/serviceregistry/IServiceRegistry.h>
#include <kesa/serviceregistry/MetainfoKeys.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>
#include <rules/usersAndGroups.h>
#include <util/shellWord.h>

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

namespace kesactl {

using kesa::serviceregistry::IServiceRegistry;
using kesa::serviceregistry::ServiceRegistryPex;
using util::config::Value;

namespace {

/// What it explains of a path; undefined when it does not. `body`: as docs/protocol_registry.md has it.
Value explained(const kesa::url& registry, const std::string& path, const std::string& body, comm::TimeNs deadline)
{
    ServiceConnection connection(ServiceDef(kesa::Path(std::string(ServiceRegistryPex::SERVICE_PATH)),
                                            ServiceDef::TypeEnum::registry, {}, {registry}));
    const ServiceConnection::Client client = connection.tryClient(deadline);
    if (!client) {
        return {};
    }
    kesa::Request request(std::string(IServiceRegistry::EXPLAIN), path,
                          kesa::Payload::createFromString(body, kesa::mimetypes::JSON));
    kesa::headers::appendResponseSemantic(request, kesa::responsesemantics::SINGLE_RESPONSE);
    kesa::headers::appendTimeout(request, std::chrono::nanoseconds(deadline - comm::now()));
    Answers answers(client, request);
    const Answers::Answer answer = answers.next(deadline);
    Value explanation;
    if (answer.kind != Answers::Kind::eVALUE || !readExplanation(answer.response, explanation).empty()) {
        return {};
    }
    return explanation;
}

} // namespace

Value askPolicy(const kesa::url& registry, comm::TimeNs deadline)
{
    return explained(registry, std::string(ServiceRegistryPex::SERVICE_PATH), "{}", deadline)["policy"];
}

Value askMay(const kesa::url& registry, const std::string& whom, std::int64_t uid, const std::string& path,
             comm::TimeNs deadline)
{
    const std::string body = fmt::format("{{\"{}\":{}}}", IServiceRegistry::EXPLAIN_FOR, asJsonString(whom));
    const Value explanation = explained(registry, path, body, deadline);
    for (const Value& each : explanation["for"]["may"].items()) {
        if (each["uid"] == Value(uid)) {
            return each;
        }
    }
    return {};
}

std::string mayCommand(const std::string& whom, std::int64_t uid, std::string_view right, const std::string& path)
{
    const bool isTold = ::geteuid() == 0 || std::int64_t{::geteuid()} == uid;
    return fmt::format("{}kesactl may {} {} {}", isTold ? "" : "root's ", processArgument(whom), right,
                       util::shellWord(path));
}

std::string policyText(const Value& policy)
{
    const std::string text(policy["text"].stringView());
    return text.empty() || !policy["read"].isInteger()
               ? text
               : fmt::format("{}; read at {}", text, asLocalTime(timeOf(policy["read"])));
}

std::string policyFailure(const Value& policy)
{
    const Value& failed = policy["failed"];
    if (!failed.isDictionary()) {
        return {};
    }
    const std::string reason(failed["reason"].stringView());
    return fmt::format("it could not be read again at {}, so that of before counts: {}",
                       asLocalTime(timeOf(failed["when"])),
                       reason.empty() ? "why is told to root and the registry's user" : reason);
}

std::string seenBy(const kesa::serviceregistry::ServiceDef& service, const Value& policy)
{
    if (!policy["hasRules"].isBool() || !service.metainfo) {
        return {};
    }
    bool isPublic = false;
    std::int64_t uid = -1;
    std::int64_t registryUid = -1;
    const bool isMarked = !(*service.metainfo)[kesa::serviceregistry::PUBLIC].get(isPublic) && isPublic;
    static_cast<void>(policy["uid"].get(registryUid));
    if ((*service.metainfo)["provider_uid"].get(uid)) {
        return {}; // the registry's own
    }
    if (policy["hasRules"] == true) {
        return fmt::format("its own user, root, the registry's user, and whom a rule for this path lets (kesactl may "
                           "USER see {} says which) of the {}{}",
                           util::shellWord(service.path.toString()), shortened(policy["text"].toText()),
                           isMarked ? "; that it is marked as public has no effect" : "");
    }
    return isMarked                         ? "everybody: it is public"
           : uid == 0 || uid == registryUid ? "everybody: it is root's or the registry's user's"
                                            : fmt::format("{}, root and the registry's user only: it is not public",
                                                          kesa::access::userName(static_cast<unsigned>(uid)));
}

} // namespace kesactl
