#include "backend/server/Doorkeeper.h"

#include "backend/connection/channel.h"
#include "backend/server/Interests.h"

#include <kesa/Path.h>
#include <kesa/commands.h>
#include <kesa/mimetypes.h>
#include <obr/visible.h>
#include <refusals/refusalOf.h>
#include <rules/systemAccounts.h>
#include <util/config/Dictionary.h>

#include <unistd.h>

#include <algorithm>

namespace kesa::commadapter {

using access::Identity;
using access::Table;
using util::config::Dictionary;
using util::config::Value;

namespace {

/// Empty when it has not proven it.
std::string provenName(const RequestContext& client)
{
    return client.peer && client.peer->proveName().proof == IPeer::Name::Proof::ePROVEN ? client.process
                                                                                        : std::string();
}

bool isTrustedAsker(const RequestContext* asker)
{
    return asker == nullptr || asker->uid == 0 || (asker->uid >= 0 && asker->uid == std::int64_t{::geteuid()});
}

} // namespace

Identity Doorkeeper::identityOf(const RequestContext& client) const
{
    return {client.uid, client.gid, m_table->asksForProcess() ? provenName(client) : std::string()};
}

std::optional<Response> Doorkeeper::refusal(Target& target, const RequestContext& client, const Request& request)
{
    if (!target.isJudged) {
        const Identity identity = identityOf(client);
        target.gate = m_table->gateOf(identity, target.path);
        target.isJudged = !m_table->asksForProcess() || !identity.process.empty(); // else it may be proven later
    }
    if (!target.gate || target.gate->lets(request.getCommand(), request.getPath())) {
        return std::nullopt;
    }
    const std::string why =
        m_table->whyRefused(identityOf(client), {target.path, request.getCommand(), request.getPath(), client.process});
    if (request.getCommand() == commands::PING) {
        return access::refusalOf(why); // who asks only whether it lives has his answer
    }
    if (const auto end = m_traces.pass(client.uid, client.pid, client.start, comm::now())) {
        KESA_TRACE(CHANNEL, 3, "[request] of %s (process %lld) is refused: %s; its further refusals are not traced%s",
                   obr::glimpse(client.process).c_str(), static_cast<long long>(client.pid), why.c_str(), end->c_str());
    }
    return access::refusalOf(why);
}

void Doorkeeper::traceIdleRules()
{
    if (const std::string idle = m_table->takeIdleRules(); !idle.empty()) {
        KESA_TRACE_TEXT(CHANNEL, 3, "[access] " + idle);
    }
}

/// Those that `who` stands for: a process of that name as it is here now, else a user. Who is not trusted asks for
/// himself alone.
std::vector<Identity> Doorkeeper::identitiesOf(const std::string& who, const RequestContext* asker,
                                               const std::vector<const RequestContext*>& clients)
{
    const bool isTrusted = isTrustedAsker(asker);
    std::vector<Identity> identities;
    for (const RequestContext* const client : clients) {
        if (client->process == who && (isTrusted || client->uid == asker->uid)) {
            const Identity identity{client->uid, client->gid, provenName(*client)};
            if (std::find(identities.begin(), identities.end(), identity) == identities.end()) {
                identities.push_back(identity);
            }
        }
    }
    if (!identities.empty()) {
        return identities;
    }
    if (!isTrusted) {
        const bool isHimself = who == std::to_string(asker->uid) || who == m_names.userName(asker->uid);
        return isHimself ? std::vector<Identity>{{asker->uid, asker->gid, {}}} : identities;
    }
    const access::IAccounts& accounts = access::systemAccounts();
    if (const auto user = accounts.findUser(who)) {
        identities.push_back({*user, accounts.groupOf(*user), {}});
    }
    return identities;
}

Response Doorkeeper::explain(const Value& question, const RequestContext* asker,
                             const std::vector<const RequestContext*>& clients)
{
    const std::string who(question["who"].stringView());
    Table::Question asked;
    asked.service = question["path"].stringView();
    asked.command = question["command"].stringView();
    if (question["resource"].isString()) {
        asked.resource = question["resource"].stringView();
    }
    if (who.empty() || !Path::complaintAboutService(asked.service).empty() || asked.command.empty()) {
        return Response::createErrorResponse(
            400, R"(ask with {"who":"media","path":"/media/player","command":"update"}, and perhaps a "resource")");
    }
    const std::vector<Identity> identities = identitiesOf(who, asker, clients);
    if (identities.empty() && !isTrustedAsker(asker)) {
        return Response::createErrorResponse(403, "what others may is told to root and to the process's own user");
    }
    Value::Array verdicts;
    for (const Identity& identity : identities) {
        const Table::Verdict verdict =
            m_table ? m_table->judge(identity, asked)
                    : Table::Verdict{true, "the process has no table of rules, \"access\": everybody may"};
        verdicts.emplace_back(Dictionary{{"who", m_names.describe(identity)},
                                         {"uid", identity.uid},
                                         {"gid", identity.gid},
                                         {"process", identity.process},
                                         {"allowed", verdict.isAllowed},
                                         {"because", verdict.because}});
    }
    return Response(200, Payload::createFromString(Value(std::move(verdicts)).toText(), mimetypes::JSON));
}

} // namespace kesa::commadapter
