#include "ServiceRules.h"

#include <gates/serviceRules.h>
#include <kesa/RequestContext.h>
#include <kesa/commands.h>
#include <kesa/mimetypes.h>
#include <obr/ErrorStorage.h>
#include <obr/visible.h>
#include <refusals/refusalOf.h>
#include <rules/readRules.h>
#include <rules/systemAccounts.h>
#include <tracing/Channel.h>
#include <util/config/Dictionary.h>
#include <util/config/JSONParser.h>

#include <fmt/format.h>

#include <unistd.h>

namespace kesa {

using util::config::Complaint;
using util::config::Dictionary;
using util::config::Value;

namespace {

void traceRules(int level, const std::string& text)
{
    static const ::tracing::Channel channel("KESA_EASE");
    KESA_TRACE_TEXT(channel, level, "[ResourceHandler] " + text);
}

/// A rule alone stands for a list of it.
Value readJson(std::string_view text, std::vector<Complaint>& complaints)
{
    const util::config::JSONParser parser;
    Value value;
    const bool failed = parser.parseString(text, value);
    complaints = parser.complaints();
    if (failed && complaints.empty()) {
        complaints.push_back({Complaint::Severity::eERROR, {}, obr::ErrorStorage::takeReason()});
    }
    obr::ErrorStorage::ack();
    return value.isDictionary() ? Value(Value::Array{value}) : value;
}

Response jsonAnswer(const Value& value)
{
    return {200, Payload::createFromString(value.toText(), mimetypes::JSON)};
}

} // namespace

void ServiceRules::allow(std::string_view rules, const std::string& place)
{
    std::vector<Complaint> complaints;
    const Value list = readJson(rules, complaints);
    const bool isRead = complaints.empty();
    std::vector<access::Rule> more;
    if (isRead) {
        more = access::readRules(list, {}, access::serviceForm(), access::systemAccounts(), complaints);
    }
    if (more.empty() && complaints.empty()) {
        complaints.push_back({Complaint::Severity::eERROR, {}, "there is no rule in the list"});
    }
    for (const Complaint& complaint : complaints) {
        const bool isError = !isRead || complaint.severity == Complaint::Severity::eERROR;
        if (isError && m_problem.empty()) {
            m_problem = complaint.sentence(place);
            traceRules(4, "a service is closed to other users, since a rule of it is none: " + m_problem);
        } else {
            traceRules(static_cast<int>(complaint.severity), complaint.sentence(place));
        }
    }
    for (access::Rule& rule : more) {
        rule.place = place;
        m_rules.push_back(std::move(rule));
    }
    m_table.reset();
}

access::Table& ServiceRules::table()
{
    if (!m_table) {
        const std::int64_t ownUid = ::geteuid();
        m_table = m_problem.empty()
                      ? std::make_unique<access::Table>(ownUid, m_rules, "the service's code", access::systemAccounts())
                      : std::make_unique<access::Table>(ownUid, m_problem, access::systemAccounts());
    }
    return *m_table;
}

std::optional<Response> ServiceRules::refusal(const Request& request)
{
    const RequestContext* const asker = RequestContext::current();
    if (asker == nullptr || (m_rules.empty() && m_problem.empty())) {
        return std::nullopt;
    }
    const access::Identity identity{asker->uid, asker->gid, {}};
    const access::GatePtr gate = table().gateOf(identity, {});
    if (!gate || gate->lets(request.getCommand(), request.getPath())) {
        return std::nullopt;
    }
    const std::string why = table().whyRefused(identity, {{}, request.getCommand(), request.getPath(), {}});
    if (const auto end = m_traces.pass(asker->uid, asker->pid, asker->start, comm::now())) {
        traceRules(3, fmt::format("a request of {} (process {}) is refused: {}; its further refusals are not traced{}",
                                  obr::glimpse(asker->process), asker->pid, why, *end));
    }
    return access::refusalOf(why);
}

bool ServiceRules::areAskedBy(const Request& request) noexcept
{
    return request.getPath() == access::SERVICE_RULES && request.getCommand() == commands::RETRIEVE;
}

Response ServiceRules::explain(const Request& request)
{
    if (m_rules.empty() && m_problem.empty()) {
        return jsonAnswer(Dictionary{{"allowed", true}, {"because", ""}});
    }
    if (request.getPayload().size() > access::MOST_OF_QUESTION) {
        return Response::createErrorResponse(413, access::QUESTION_TOO_LONG);
    }
    std::vector<Complaint> complaints;
    const Value body = readJson(request.getPayload().text(), complaints)[0];
    access::Identity identity;
    access::Table::Question question;
    question.command = body["command"].stringView();
    if (body["resource"].isString()) {
        question.resource = body["resource"].stringView();
    }
    if (body["uid"].get(identity.uid) || body["gid"].get(identity.gid) || question.command.empty()) {
        obr::ErrorStorage::ack();
        return Response::createErrorResponse(
            400, R"(ask with {"uid":1001,"gid":1001,"command":"update"}, and perhaps a "resource")");
    }
    const RequestContext* const asker = RequestContext::current();
    if (asker != nullptr && !table().isTrusted({asker->uid, asker->gid, {}})) {
        if (asker->uid != identity.uid) {
            return Response::createErrorResponse(403, "what others may is told to root and to the process's own user");
        }
        identity.gid = asker->gid;
    }
    const access::Table::Verdict verdict = table().judge(identity, question);
    return jsonAnswer(Dictionary{{"allowed", verdict.isAllowed}, {"because", verdict.because}});
}

} // namespace kesa
