#include "registryPolicy.h"

#include "Answers.h"
#include "ProcessReport.h"
#include "ServiceConnection.h"
#include "peerText.h"
#include "registryFaults.h"

#include <kesa/headers.h>
#include <kesa/mimetypes.h>
#include <kesa/responsesemantics.h>
#include <kesa/serviceregistry/IServiceRegistry.h>
#include <kesa/serviceregistry/MetainfoKeys.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>
#include <rules/usersAndGroups.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>

namespace kesactl {

using kesa::serviceregistry::IServiceRegistry;
using kesa::serviceregistry::ServiceRegistryPex;
using util::config::Value;

Value askPolicy(const kesa::url& registry, comm::TimeNs deadline)
{
    const std::string path(ServiceRegistryPex::SERVICE_PATH);
    ServiceConnection connection(ServiceDef(kesa::Path(path), ServiceDef::TypeEnum::registry, {}, {registry}));
    const ServiceConnection::Client client = connection.tryClient(deadline);
    if (!client) {
        return {};
    }
    kesa::Request request(std::string(IServiceRegistry::EXPLAIN), path,
                          kesa::Payload::createFromString("{}", kesa::mimetypes::JSON));
    kesa::headers::appendResponseSemantic(request, kesa::responsesemantics::SINGLE_RESPONSE);
    kesa::headers::appendTimeout(request, std::chrono::nanoseconds(deadline - comm::now()));
    Answers answers(client, request);
    const Answers::Answer answer = answers.next(deadline);
    Value explanation;
    if (answer.kind != Answers::Kind::eVALUE || !readExplanation(answer.response, explanation).empty()) {
        return {};
    }
    return explanation["policy"];
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
        return fmt::format("its own user, root, and whom the policy lets: {}{}", shortened(policy["text"].toText()),
                           isMarked ? "; that it is marked as public has no effect" : "");
    }
    return isMarked                         ? "everybody: it is public"
           : uid == 0 || uid == registryUid ? "everybody: it is root's or the registry's user's"
                                            : fmt::format("{}, root and the registry's user only: it is not public",
                                                          kesa::access::userName(static_cast<unsigned>(uid)));
}

} // namespace kesactl
