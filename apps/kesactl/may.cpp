// may: whether somebody may register or see a service, by the policy that the registry has, or call it, by the rules in
// the document of the process that provides it and in the service's code. Nothing is tried.
#include "Answers.h"
#include "Failure.h"
#include "ProcessFacts.h"
#include "RunDirectoryFacts.h"
#include "ServiceConnection.h"
#include "System.h"
#include "commands.h"
#include "explainNoRegistry.h"
#include "options.h"
#include "otherRunDirectories.h"
#include "output.h"
#include "peerText.h"
#include "processNames.h"
#include "processNotes.h"
#include "registryFaults.h"
#include "registryPolicy.h"

#include <CLI/CLI.hpp>
#include <backend/ProcessService.h>
#include <common/RegistryPlace.h>
#include <gates/serviceRules.h>
#include <kesa/commands.h>
#include <kesa/headers.h>
#include <kesa/mimetypes.h>
#include <kesa/responsesemantics.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/IServiceRegistry.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>
#include <obr/ErrorStorage.h>
#include <obr/visible.h>
#include <rules/RuleForm.h>
#include <rules/usersAndGroups.h>
#include <util/config/Dictionary.h>
#include <util/config/JSONParser.h>
#include <util/nearestName.h>

#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <set>
#include <string_view>
#include <vector>

namespace kesactl {
namespace {

using kesa::access::userName;
using kesa::serviceregistry::IServiceRegistry;
using kesa::serviceregistry::ServiceRegistryPex;
using util::config::Value;

struct MayArguments {
    std::string who;
    std::string right;
    std::string path;
    std::string command;  ///< of a call; empty: retrieve
    std::string resource; ///< the same; empty: any
    CommonOptions common;
};

/// What comes first to the only question of a connection.
Answers::Answer askOnce(const ServiceConnection::Client& client, kesa::Request request, comm::TimeNs deadline)
{
    kesa::headers::appendResponseSemantic(request, kesa::responsesemantics::SINGLE_RESPONSE);
    kesa::headers::appendTimeout(request, std::chrono::nanoseconds(deadline - comm::now()));
    return Answers(client, request).next(deadline);
}

/// The answer, without which there is nothing to say.
kesa::Response valueOf(const Answers::Answer& answer, const std::string& whom, const CommonOptions& options)
{
    const bool isTimeOver = answer.response.getStatus() == 504 && comm::now() >= options.deadline();
    if (answer.kind == Answers::Kind::eTIMED_OUT || isTimeOver) {
        throw Failure{ExitCode::eTIMED_OUT,
                      fmt::format("{} has not answered within {} s", whom, options.timeoutSeconds), 0,
                      "give it more with --timeout; its log may say what it waits for"};
    }
    if (answer.kind == Answers::Kind::eCOMPLETED) {
        throw Failure{ExitCode::eFAILED, whom + " has answered without content, so what may be is not known"};
    }
    if (answer.kind != Answers::Kind::eVALUE) {
        throw Failure{ExitCode::eFAILED, fmt::format("{} answers {}", whom, saidBy(answer.response))};
    }
    return answer.response;
}

kesa::Payload jsonPayload(const std::string& text)
{
    return kesa::Payload::createFromString(text, kesa::mimetypes::JSON);
}

/// The users as which processes of a name run here, by their numbers.
std::set<std::int64_t> usersOfProcess(const std::string& process)
{
    std::set<std::int64_t> users;
    for (const NotedProcess& note : findNotes(process)) {
        if (note.isHere) {
            users.insert(note.uid);
        }
    }
    for (const RunDirectoryFacts::Name& name : RunDirectoryFacts(chosenRunDirectory()).names) {
        const ProcessFacts facts(name.holder);
        if (name.holder != 0 && !name.isLost && plainName(name.name) == process && facts.isThere) {
            users.insert(facts.uid);
        }
    }
    return users;
}

/// Of a provider that knows no rules, as of the Python client. Empty when nobody is called so.
Value verdictsWithoutRules(const std::string& who)
{
    Value::Array verdicts;
    if (const auto user = kesa::access::findUser(who); user || !usersOfProcess(who).empty()) {
        verdicts.emplace_back(util::config::Dictionary{
            {"who", user ? fmt::format("user {} (uid {})", userName(*user), *user) : "process " + who},
            {"allowed", true},
            {"knowsNoRules", true},
            {"because",
             "its process knows no rules, as of the Python client, and lets everybody ask who may connect"}});
    }
    return Value(std::move(verdicts));
}

/// Of a process that asks the registry for nothing, as one that was refused all that it has asked for: its users may
/// what no rule asks its name for.
Value::Array askAboutUsersOf(const MayArguments& arguments, const kesa::url& registry)
{
    Value::Array verdicts;
    for (const std::int64_t uid : usersOfProcess(arguments.who)) {
        const Value may = askMay(registry, std::to_string(uid), uid, arguments.path, arguments.common.laterDeadline());
        if (may.isDefined()) {
            util::config::Dictionary verdict = may[arguments.right.c_str()].dictionary();
            verdict.set("who", may["who"]);
            verdict.set("because", fmt::format("{}; {} runs as that user, and asks the registry for nothing at the "
                                               "moment, so rules for processes of its name do not count here",
                                               Value(verdict)["because"].toText(), arguments.who));
            verdicts.emplace_back(std::move(verdict));
        }
    }
    return verdicts;
}

/// What the registry says of what `who` may at the path.
Value askRegistry(const MayArguments& arguments)
{
    const System system;
    const kesa::url registry = apps::findRegistryPlace("kesactl-" + std::to_string(::getpid()),
                                                       kesa::runtime::v02::KesaRuntime::WITH_REGISTRYD)
                                   .locators.front();
    ServiceConnection connection(ServiceDef(kesa::Path("/registry"), ServiceDef::TypeEnum::registry, {}, {registry}));
    const comm::TimeNs deadline = arguments.common.deadline();
    ServiceConnection::Client client = connection.tryClient(timeToExplain(deadline));
    if (!client) {
        const Unreached why = explainNoRegistry(registry, std::max<comm::TimeNs>(deadline - comm::now(), 0));
        client = connection.tryClient(deadline); // it may have come meanwhile
        if (!client) {
            throw Failure{ExitCode::eNO_REGISTRY, fmt::format("the registry at {}: {}", registry.toString(), why.text),
                          0, why.advice};
        }
    }
    const std::string who = fmt::format("{{\"{}\":{}}}", IServiceRegistry::EXPLAIN_FOR, asJsonString(arguments.who));
    const kesa::Response response =
        valueOf(askOnce(client, kesa::Request(IServiceRegistry::EXPLAIN, arguments.path, jsonPayload(who)), deadline),
                "the registry", arguments.common);
    Value explanation;
    if (const std::string fault = readExplanation(response, explanation); !fault.empty()) {
        const Unreached why = explainFault(registry, fault);
        throw Failure{ExitCode::eFAILED, fmt::format("the registry at {}: {}", registry.toString(), why.text), 0,
                      why.advice};
    }
    const Value may = explanation["for"]["may"];
    Value::Array verdicts;
    for (const Value& one : may.items()) {
        util::config::Dictionary verdict = one[arguments.right.c_str()].dictionary();
        verdict.set("who", one["who"]);
        verdicts.emplace_back(std::move(verdict));
    }
    if (verdicts.empty()) {
        verdicts = askAboutUsersOf(arguments, registry);
    }
    if (verdicts.empty() && !may.isArray()) {
        throw Failure{ExitCode::eFAILED, "the registry tells what others may only to root and to its own user", 0,
                      fmt::format("ask as root, or as the user whom it is about; of yourself: {}",
                                  mayCommand(userName(::geteuid()), ::geteuid(), arguments.right, arguments.path))};
    }
    return Value(std::move(verdicts));
}

/// What the process that provides the service says, by its document.
Value askProcess(const MayArguments& arguments, const ServiceDef& service, comm::TimeNs deadline)
{
    using kesa::commadapter::ProcessService;
    std::vector<kesa::url> locators;
    for (const kesa::url& locator : service.locators) {
        locators.emplace_back(fmt::format("{}://{}{}", locator.scheme(), locator.authority(), ProcessService::PATH));
    }
    ServiceConnection connection(
        ServiceDef(kesa::Path(std::string(ProcessService::PATH)), ServiceDef::TypeEnum::pex, {}, locators));
    util::config::Dictionary question{{"who", arguments.who}, {"path", arguments.path}, {"command", arguments.command}};
    if (!arguments.resource.empty()) {
        question.set("resource", arguments.resource);
    }
    const Answers::Answer answer = askOnce(connection.client(deadline),
                                           kesa::Request(kesa::commands::RETRIEVE, std::string(ProcessService::MAY),
                                                         jsonPayload(Value(std::move(question)).toText())),
                                           deadline);
    if (answer.kind == Answers::Kind::eERROR && answer.response.getStatus() == 404) {
        return verdictsWithoutRules(arguments.who);
    }
    const kesa::Response response = valueOf(answer, "the process that provides it", arguments.common);
    Value verdicts;
    if (util::config::JSONParser().parseString(std::string(response.getPayload().text()), verdicts) ||
        !verdicts.isArray()) {
        obr::ErrorStorage::ack();
        throw Failure{ExitCode::eFAILED, "the process that provides it answers what is no list"};
    }
    return withShortTexts(verdicts);
}

/// What the service itself says of one whom the document of its process lets in, by the rules of its code.
void askService(const MayArguments& arguments, ServiceConnection& service, util::config::Dictionary& verdict,
                comm::TimeNs deadline)
{
    util::config::Dictionary question{
        {"uid", Value(verdict)["uid"]}, {"gid", Value(verdict)["gid"]}, {"command", arguments.command}};
    if (!arguments.resource.empty()) {
        question.set("resource", arguments.resource);
    }
    const Answers::Answer answer =
        askOnce(service.client(deadline),
                kesa::Request(kesa::commands::RETRIEVE, std::string(kesa::access::SERVICE_RULES),
                              jsonPayload(Value(std::move(question)).toText())),
                deadline);
    const std::string byDocument = Value(verdict)["because"].toText();
    if (answer.kind == Answers::Kind::eTIMED_OUT) {
        verdict.set("because", byDocument + "; the service has not said in time whether it has rules of its own");
        return;
    }
    Value own;
    const bool isTold = answer.kind == Answers::Kind::eVALUE &&
                        !util::config::JSONParser().parseString(answer.response.getPayload().text(), own);
    obr::ErrorStorage::ack();
    bool isAllowed = true;
    if (!isTold || own["allowed"].get(isAllowed) || own["because"].stringView().empty()) {
        return; // it has none, or is a service of another kind
    }
    verdict.set("allowed", isAllowed);
    const std::string byCode = shortened(own["because"].stringView());
    verdict.set("because", isAllowed ? fmt::format("{}; {}", byDocument, byCode) : byCode);
}

/// Whether this process may ask the service for its rules. To try it would be traced there.
bool maySeeRules(MayArguments arguments, const ServiceDef& service, comm::TimeNs deadline)
{
    arguments.who = std::to_string(::geteuid());
    arguments.command = kesa::commands::RETRIEVE;
    arguments.resource = kesa::access::SERVICE_RULES;
    const Value verdicts = askProcess(arguments, service, deadline);
    return verdicts[0]["allowed"] == true;
}

/// What the process that provides the service says of it, and the service itself.
Value askProvider(const MayArguments& arguments)
{
    const System system;
    const comm::TimeNs deadline = arguments.common.deadline();
    const ServiceDef service = findService(system, arguments.path, deadline);
    Value verdicts = askProcess(arguments, service, deadline);
    if (arguments.path == ServiceRegistryPex::SERVICE_PATH || verdicts[0]["knowsNoRules"] == true) {
        return verdicts;
    }
    ServiceConnection connection(service);
    Value::Array all;
    for (const Value& one : verdicts.items()) {
        util::config::Dictionary verdict = one.dictionary();
        if (one["allowed"] == true && maySeeRules(arguments, service, arguments.common.laterDeadline())) {
            askService(arguments, connection, verdict, arguments.common.laterDeadline());
        } else if (one["allowed"] == true) {
            verdict.set("because",
                        one["because"].toText() + "; the service may have rules of its own, which root may ask for");
        }
        all.emplace_back(std::move(verdict));
    }
    return Value(std::move(all));
}

constexpr std::array<std::string_view, 3> RIGHTS = {"register", "see", "call"};

/// The usual command that may be meant by one that is none of them; empty when none is.
std::string_view commandMeantBy(const std::string& command)
{
    const std::vector<std::string_view>& usual = kesa::access::accessForm().actions;
    return std::find(usual.begin(), usual.end(), command) != usual.end() ? std::string_view()
                                                                         : util::nearestName(command, usual);
}

std::string checkRight(const std::string& right)
{
    if (std::find(RIGHTS.begin(), RIGHTS.end(), right) != RIGHTS.end()) {
        return {};
    }
    const std::vector<std::string_view>& usual = kesa::access::accessForm().actions;
    const std::string_view meant = util::nearestName(right, {RIGHTS.begin(), RIGHTS.end()});
    const std::string_view command = util::nearestName(right, usual);
    return fmt::format("'{}' is none of register, see and call{}", right,
                       !meant.empty()     ? fmt::format("; did you mean '{}'?", meant)
                       : !command.empty() ? fmt::format("; a command comes last: kesactl may WHO call PATH {}", command)
                                          : "");
}

void may(const MayArguments& arguments, int& exitCode)
{
    if (arguments.path.empty()) {
        throw Failure{ExitCode::eUSAGE, "may needs WHO, RIGHT and PATH", 0,
                      fmt::format("ask kesactl may {} register, see or call PATH; kesactl list shows the paths",
                                  processArgument(arguments.who))};
    }
    const bool isCall = arguments.right == "call";
    if (!isCall && (!arguments.command.empty() || !arguments.resource.empty())) {
        throw Failure{ExitCode::eUSAGE, "a command and --resource are for call alone"};
    }
    MayArguments asked = arguments;
    asked.command = asked.command.empty() ? "retrieve" : asked.command;
    const Value all = isCall ? askProvider(asked) : askRegistry(asked);
    if (all.arraySize() == 0) {
        throw Failure{ExitCode::eFAILED,
                      fmt::format("there is no user \"{}\", and no process of that name {}",
                                  obr::visible(arguments.who), isCall ? "asks the provider for anything" : "is here")};
    }
    const std::string what =
        isCall ? asked.command + (asked.resource.empty() ? "" : " " + asked.resource + " of") : asked.right;
    for (const Value& verdict : all.items()) {
        const bool isAllowed = verdict["allowed"] == true;
        exitCode = isAllowed ? exitCode : static_cast<int>(ExitCode::eFAILED);
        const std::string who = verdict["who"].toText();
        const std::string_view meant = isAllowed || !isCall ? "" : commandMeantBy(asked.command);
        const std::string because =
            verdict["because"].toText() + (meant.empty() ? "" : fmt::format("; did you mean \"{}\"?", meant));
        print(arguments.common.isJson ? fmt::format("{{\"who\":{},\"allowed\":{},\"because\":{}}}\n", asJsonString(who),
                                                    isAllowed, asJsonString(because))
                                      : fmt::format("{} may {}{} {}: {}\n", obr::visible(who), isAllowed ? "" : "not ",
                                                    what, arguments.path, obr::visible(because)));
    }
}

} // namespace

void addMay(CLI::App& app, int& exitCode)
{
    auto arguments = std::make_shared<MayArguments>();
    CLI::App* const command =
        app.add_subcommand("may", "Says whether somebody may register, see or call a service, without trying it.");
    command->add_option("WHO", arguments->who, "A user, by name or number, or the name of a process that runs.")
        ->required()
        ->type_name("");
    command->add_option("RIGHT", arguments->right, "register, see or call.")->check(checkRight)->type_name("");
    command->add_option("PATH", arguments->path, "Of the service.")->check(checkPath)->type_name("");
    command->add_option("COMMAND", arguments->command, "Of a call; without it: retrieve.")->type_name("");
    command
        ->add_option("--resource", arguments->resource, "Of a call: the path inside of the service; without it: any.")
        ->type_name("PATH");
    addCommonOptions(*command, arguments->common, "How long the registry or the provider may take.");
    command->footer(
        "The registry answers by the policy that it has at the moment, and of a call the process that provides the "
        "service, by \"access\" of its document and the rules of its code: to root and its own user, and to others of "
        "themselves. Exit code: 0 when it is allowed, 1 when not.");
    command->callback([arguments, &exitCode] { may(*arguments, exitCode); });
}

} // namespace kesactl
