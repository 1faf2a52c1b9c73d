// why: one answer to "why does this service not work", out of those of docs/why.md. It goes the way that a client goes:
// to the registry, to the record, to the process that provides the service, and to an answer of that; the first step
// that fails is the cause.
#include "Answers.h"
#include "Failure.h"
#include "ProcessFacts.h"
#include "ProcessReport.h"
#include "ServiceConnection.h"
#include "System.h"
#include "Verdict.h"
#include "adviseAround.h"
#include "askProcesses.h"
#include "commands.h"
#include "explainNoRegistry.h"
#include "nameHolders.h"
#include "options.h"
#include "otherRunDirectories.h"
#include "output.h"
#include "peerText.h"
#include "probe.h"
#include "processNames.h"
#include "processNotes.h"
#include "providersHere.h"
#include "registryFaults.h"
#include "registryPolicy.h"
#include "replacedRealm.h"
#include "whyAbsent.h"
#include "whyNotTold.h"

#include <CLI/CLI.hpp>
#include <common/RegistryPlace.h>
#include <gates/Table.h>
#include <kesa/headers.h>
#include <kesa/mimetypes.h>
#include <kesa/responsesemantics.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/IServiceRegistry.h>
#include <rules/usersAndGroups.h>
#include <util/shellWord.h>

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <unistd.h>
#include <utility>

namespace kesactl {
namespace {

using kesa::runtime::v02::KesaRuntime;
using kesa::serviceregistry::IServiceRegistry;
using util::config::Value;

struct WhyArguments {
    std::string path;
    std::string process;
    CommonOptions common;
};

Verdict verdictOf(const kesa::url& registry, const Unreached& why)
{
    return {why.cause, fmt::format("the registry at {}: {}", registry.toString(), why.text), why.advice, {}};
}

comm::TimeNs until(comm::TimeNs deadline)
{
    return std::max<comm::TimeNs>(deadline - comm::now(), 0);
}

Verdict unreached(const kesa::url& registry, comm::TimeNs deadline)
{
    return verdictOf(registry, explainNoRegistry(registry, until(deadline)));
}

/// Of an error of a registry that can be connected to.
Verdict refused(const kesa::url& registry, const kesa::Response& error)
{
    const std::string said = saidBy(error);
    if (const std::string fault = faultOf(error); !fault.empty()) {
        return verdictOf(registry, explainFault(registry, fault));
    }
    if (error.getStatus() == 400) {
        return {"old-registry",
                fmt::format("the registry does not explain: {}", said),
                "update kesa-registryd; until then kesactl show says whether it is there",
                {}};
    }
    return {"no-answer",
            fmt::format("the registry at {} answers {}", registry.toString(), said),
            "ask again; its log may say what it waits for",
            {}};
}

/// To a registry. `process`: also whether that one is told of it; may be empty.
kesa::Request questionAbout(const std::string& path, const std::string& process)
{
    const std::string body =
        process.empty() ? "{}" : fmt::format("{{\"{}\":{}}}", IServiceRegistry::EXPLAIN_FOR, asJsonString(process));
    return {IServiceRegistry::EXPLAIN, path, kesa::Payload::createFromString(body, kesa::mimetypes::JSON)};
}

/// Of the locators of a record the one that the runtime has taken, which is the first that is understood here.
std::pair<kesa::url, Unreached> explainTaken(const ServiceDef& service, comm::TimeNs within)
{
    auto locator = service.locators.begin();
    Unreached why = explainUnreachable(*locator, within);
    while ((why.cause == "bad-locator" || why.cause == "hidden-by-realm") &&
           std::next(locator) != service.locators.end()) {
        why = explainUnreachable(*++locator, within); // of the one before it was known at once
    }
    return {*locator, std::move(why)};
}

class Search {
public:
    explicit Search(const WhyArguments& arguments) : m_arguments(arguments) {}

    Verdict run();
    const Value& explanation() const noexcept { return m_explanation; }

private:
    std::optional<Verdict> askRegistry();
    Verdict judge() const;
    PolicyNow policyNow() const { return {m_place.locators.front(), m_arguments.common.laterDeadline()}; }
    Value policy() const { return askPolicy(m_place.locators.front(), m_arguments.common.laterDeadline()); }
    void addSince(ProcessesHere& here) const;
    bool isUnprovided(const Verdict& verdict) const;
    Verdict explainNeverSeen(Verdict verdict, ProcessesHere here, const std::string& meant) const;
    ProcessesHere processesHere(const std::string& name, std::int64_t uid = -1) const;
    Verdict explainRealm() const;
    std::optional<Verdict> explainReplacedRealm(const std::string& locators) const;
    std::optional<Verdict> explainTakenName(const kesa::url& locator) const;
    Verdict reach() const;
    Verdict call(const ServiceConnection::Client& client, const ServiceDef& service) const;
    Verdict explainForbidden(const kesa::Response& refusal, const kesa::url& locator) const;
    Verdict explainNoAnswer(std::int64_t pid) const;
    static Answers::Answer ask(const ServiceConnection::Client& client, kesa::Request request, comm::TimeNs deadline);
    std::string holder() const { return whoText(m_explanation["holder"]); }

    const WhyArguments& m_arguments;
    const apps::RegistryPlace m_place =
        apps::findRegistryPlace("kesactl-" + std::to_string(::getpid()), KesaRuntime::WITH_REGISTRYD);
    Value m_explanation; ///< what the registry has answered; undefined when it has not
};

Verdict Search::run()
{
    if (!m_place.problem.empty()) {
        return explainWithoutRegistry(m_place, m_arguments.path, until(m_arguments.common.deadline()));
    }
    const System system;
    if (auto failure = askRegistry()) {
        return *failure;
    }
    Verdict verdict = judge();
    if (m_explanation["taken"] == true) {
        return explainHidden(m_explanation, processesHere({}).provider, policy());
    }
    if (!isUnprovided(verdict)) {
        return verdict;
    }
    const auto& history = m_explanation["history"].items();
    const Value& owner = history.empty() ? Value() : history.back()["uid"]; // anybody may say to have a name
    const std::int64_t uid = owner.isDefined() ? integerOf(owner) : -1;
    ProcessesHere here = processesHere({}, uid);
    addSince(here);
    if (here.provider) {
        if (auto failure = askRegistry()) { // it may have registered meanwhile
            return *failure;
        }
        Verdict now = judge();
        if (m_explanation["taken"] == true) {
            return explainHidden(m_explanation, here.provider, policy());
        }
        if (!isUnprovided(now)) {
            return now;
        }
        const std::int64_t self = ::geteuid();
        const Value may = askMay(m_place.locators.front(), std::to_string(self), self, m_arguments.path,
                                 m_arguments.common.laterDeadline());
        return explainHereOnly(*here.provider, m_arguments.path, m_place, policy(), may["see"]);
    }
    if (verdict.cause != "never-registered") {
        const std::string name = m_explanation["history"].items().back()["provider"].toText();
        return explainAfterEnd(std::move(verdict), m_explanation, here, processesHere(name, uid),
                               m_place.locators.front());
    }
    return explainNeverSeen(std::move(verdict), here,
                            adviseAround(system, m_arguments.path, m_arguments.common.laterDeadline()));
}

/// The processes here know more of it than the registry.
bool Search::isUnprovided(const Verdict& verdict) const
{
    return verdict.cause == "never-registered" || hasProviderEnded(m_explanation);
}

/// What has become of what the policy forbade a process here.
void Search::addSince(ProcessesHere& here) const
{
    if (here.refused && here.refused->isForbidden) {
        PolicyNow::Since since = policyNow().since(here.refused->then);
        here.refused->text += since.text;
        here.refused->advice = since.advice.empty() ? here.refused->advice : std::move(since.advice);
    }
}

/// `meant`: which path may be meant; may be empty.
Verdict Search::explainNeverSeen(Verdict verdict, ProcessesHere here, const std::string& meant) const
{
    verdict.advice = meant.empty() ? verdict.advice : meant;
    if (!meant.empty() || m_explanation["nearest"].isString() || !m_arguments.process.empty()) {
        here.nameless.clear(); // there is a better guess
    }
    verdict = explainHeldOr(std::move(verdict), here);
    if (!m_arguments.process.empty()) {
        addUnseen(verdict, m_arguments.process, processesHere(m_arguments.process).unseen);
    }
    return verdict;
}

/// A verdict when it has not explained the path.
std::optional<Verdict> Search::askRegistry()
{
    const kesa::url& registry = m_place.locators.front();
    ServiceConnection connection(ServiceDef(kesa::Path("/registry"), ServiceDef::TypeEnum::registry, {}, {registry}));
    const comm::TimeNs deadline = m_arguments.common.laterDeadline(); // it may be asked again
    ServiceConnection::Client client = connection.tryClient(timeToExplain(deadline));
    if (!client) {
        const Verdict verdict = unreached(registry, deadline);
        client = connection.tryClient(deadline); // it may have come meanwhile
        if (!client) {
            return verdict;
        }
    }
    const comm::TimeNs most = m_arguments.common.laterDeadline();
    const Answers::Answer answer =
        ask(client, questionAbout(m_arguments.path, m_arguments.process), timeToExplain(most));
    if (answer.kind == Answers::Kind::eTIMED_OUT) {
        return unreached(registry, most);
    }
    if (answer.kind == Answers::Kind::eERROR) {
        const auto status = answer.response.getStatus();
        const Unreached why =
            status == 503 || status == 504 ? explainNoRegistry(registry, until(most)) : Unreached{"slow", {}, {}};
        return status == 504 || why.cause != "slow" ? verdictOf(registry, why) : refused(registry, answer.response);
    }
    const std::string fault = answer.kind == Answers::Kind::eVALUE ? readExplanation(answer.response, m_explanation)
                                                                   : "it ends without an answer";
    if (!fault.empty()) {
        return verdictOf(registry, explainFault(registry, fault));
    }
    return std::nullopt;
}

/// `uid`: as of `askProcessesHere`.
ProcessesHere Search::processesHere(const std::string& name, std::int64_t uid) const
{
    return askProcessesHere(m_arguments.path, name,
                            std::min(m_arguments.common.laterDeadline(), comm::now() + comm::SECOND), uid);
}

Verdict Search::judge() const
{
    if (m_explanation["registered"] != true) {
        PolicyNow policy = policyNow();
        return explainAbsence(m_explanation, processOf(m_place.locators.front()), policy);
    }
    if (m_explanation["hiddenBy"] == "realm") {
        return explainRealm();
    }
    Verdict verdict = reach();
    if (verdict.isGood() && !m_arguments.process.empty()) {
        const ProcessesHere here = processesHere(m_arguments.process);
        Verdict ofProcess = explainProcess(m_explanation, m_arguments.process, m_arguments.path, m_place, here.asked,
                                           m_arguments.common.laterDeadline());
        if (!here.held.empty()) {
            ofProcess = explainHeld(here.held.front(), m_arguments.process + " does not see it");
        } else if (!here.otherVersion.text.empty()) {
            ofProcess = {"other-version",
                         m_arguments.process + " does not see it: " + here.otherVersion.text,
                         here.otherVersion.advice,
                         {}};
        } else if (here.unseen.isSilent) {
            ofProcess = {
                "silent", m_arguments.process + " does not see it: " + here.unseen.text, here.unseen.advice, {}};
        } else {
            addUnseen(ofProcess, m_arguments.process, here.unseen);
        }
        ofProcess.notes.push_back(verdict.text);
        verdict = std::move(ofProcess);
    }
    for (std::string& note : notesOf(m_explanation, 0)) {
        verdict.notes.push_back(std::move(note));
    }
    return verdict;
}

/// Of a record whose provider is here, in another realm than this process or the registry.
std::optional<Verdict> Search::explainReplacedRealm(const std::string& locators) const
{
    const RunDirectoryFacts here(chosenRunDirectory());
    const auto isHolder = [pid = integerOf(m_explanation["holder"]["pid"])](const RunDirectoryFacts::Name& name) {
        return name.holder == pid && !name.isLost;
    };
    if (std::none_of(here.names.begin(), here.names.end(), isHolder)) {
        return std::nullopt;
    }
    ReplacedRealm replaced = findReplacedRealm(here, lookAtProcesses(here, m_arguments.common.laterDeadline()));
    if (replaced.text.empty()) {
        return std::nullopt;
    }
    return Verdict{"hidden-by-realm",
                   fmt::format("{} provides it at {} only: {}", holder(), locators, replaced.text),
                   std::move(replaced.advice),
                   {}};
}

/// Its locators are of another realm: of another run directory, or of this one before it was emptied.
Verdict Search::explainRealm() const
{
    std::string locators;
    for (const Value& locator : m_explanation["holder"]["record"]["locators"].items()) {
        locators.append(locators.empty() ? "" : ", ").append(locator.toText());
    }
    const std::int64_t pid = integerOf(m_explanation["holder"]["pid"]);
    const auto holders = findNameHolders();
    const auto found =
        std::find_if(holders.begin(), holders.end(), [pid](const NameHolder& each) { return each.pid == pid; });
    if (auto replaced = explainReplacedRealm(locators)) {
        return *replaced;
    }
    if (found != holders.end() && found->isLost) {
        return {"socket-removed",
                fmt::format("{} provides it at {}, but its files were removed from {}", holder(), locators,
                            found->directory),
                "restart it, and keep cleaners out of the run directory",
                {}};
    }
    return {"hidden-by-realm",
            fmt::format("{} provides it at {} only, which is of another run directory", holder(), locators),
            found == holders.end()
                ? fmt::format("set KESA_RUN_DIR to the directory that {} uses", holder())
                : fmt::format("{} for all who shall meet it, or start it here", howToSet(found->directory)),
            {}};
}

/// Of a record whose provider has lost its files here, so that another process could take its name.
std::optional<Verdict> Search::explainTakenName(const kesa::url& locator) const
{
    const RunDirectoryFacts here(chosenRunDirectory());
    const std::int64_t pid = integerOf(m_explanation["holder"]["pid"]);
    const auto& names = here.names;
    const auto isTaker = [process = processOf(locator)](const auto& name) {
        return name.name == process && name.holder != 0 && !name.isLost;
    };
    const auto taker = std::find_if(names.begin(), names.end(), isTaker);
    const bool isLost =
        std::any_of(names.begin(), names.end(), [pid](const auto& name) { return name.isLost && name.holder == pid; });
    if (!isLost || taker == names.end()) {
        return std::nullopt;
    }
    return Verdict{"socket-removed",
                   fmt::format("{} has registered it at {}, but its files were removed from {}, and process {}, which "
                               "does not provide it, has its name now",
                               holder(), locator.toString(), here.path, taker->holder),
                   fmt::format("end process {}, which nobody finds any more; if both shall run, start it again with a "
                               "name of its own; keep cleaners out of the run directory",
                               pid),
                   {}};
}

/// Goes to the process that provides it, as a client would.
Verdict Search::reach() const
{
    ServiceDef service(kesa::Path(m_arguments.path), ServiceDef::TypeEnum::pex, {}, {});
    for (const Value& locator : m_explanation["holder"]["record"]["locators"].items()) {
        service.locators.emplace_back(locator.toText());
    }
    if (service.locators.empty()) {
        return {"bad-locator",
                fmt::format("{} has registered it without a locator", holder()),
                "its provider has to name where it is",
                {}};
    }
    ServiceConnection connection(service);
    const comm::TimeNs deadline = m_arguments.common.laterDeadline();
    if (const ServiceConnection::Client client = connection.tryClient(timeToExplain(deadline))) {
        return call(client, service);
    }
    const auto [locator, why] = explainTaken(service, until(deadline));
    if (const ServiceConnection::Client client = connection.tryClient(deadline)) { // it may have come meanwhile
        return call(client, service);
    }
    if (auto taken = why.cause == "not-provided" ? explainTakenName(locator) : std::nullopt) {
        return *taken;
    }
    return {why.cause,
            fmt::format("{} has registered it at {}: {}", holder(), locator.toString(), why.text),
            why.advice,
            {}};
}

Verdict Search::call(const ServiceConnection::Client& client, const ServiceDef& service) const
{
    const Answers::Answer answer = ask(client, probeOf(service), m_arguments.common.laterDeadline());
    const auto status = answer.response.getStatus();
    if (answer.kind == Answers::Kind::eTIMED_OUT || (answer.kind == Answers::Kind::eERROR && status == 504)) {
        const std::int64_t pid = integerOf(m_explanation["holder"]["pid"]);
        if (ProcessFacts(static_cast<pid_t>(pid)).isStopped) {
            return {"stopped",
                    fmt::format("{} is stopped", holder()),
                    howToContinue(static_cast<pid_t>(pid)) + ", or end its debugger",
                    {}};
        }
        return explainNoAnswer(pid);
    }
    if (answer.kind == Answers::Kind::eERROR && status == 403) {
        return explainForbidden(answer.response, service.locators.front());
    }
    // Of the connection, or the service's own.
    const bool isRefusal = answer.kind == Answers::Kind::eERROR && status == 503;
    if (isRefusal && explainTaken(service, until(m_arguments.common.laterDeadline())).second.cause != "slow") {
        return {
            "not-provided", fmt::format("{} has just gone: {}", holder(), saidBy(answer.response)), "ask again", {}};
    }
    return {std::string(Verdict::WORKS),
            fmt::format("{} has provided it since {} at {}, {}", holder(), timeText(m_explanation["holder"]["since"]),
                        service.locators.front().toString(),
                        isRefusal ? fmt::format("but its service itself answers {}", saidBy(answer.response))
                                  : "and answers"),
            isRefusal ? fmt::format("{}'s log may say what its service waits for",
                                    m_explanation["holder"]["provider"].toText())
                      : "",
            {}};
}

/// Of a service that answers, and refuses this user the probe: all, or all but the commands that its rules name.
Verdict Search::explainForbidden(const kesa::Response& refusal, const kesa::url& locator) const
{
    const Value process =
        askProcesses({processOf(locator)}, m_arguments.common.laterDeadline()).at(processOf(locator)).answer;
    if (saidBy(refusal).find(kesa::access::Table::CLOSED) != std::string::npos && process["servicesClosed"] != true) {
        return {
            "closed",
            fmt::format("{} has provided it since {} at {}, but has closed it to other users, since its rules, which "
                        "stand in its code, cannot be read: {}",
                        holder(), timeText(m_explanation["holder"]["since"]), locator.toString(), saidBy(refusal)),
            "mend its code, then restart it",
            {}};
    }
    if (process["servicesClosed"] == true) {
        return {"closed",
                fmt::format("{} has provided it since {} at {}, but has closed all its services to other users, since "
                            "its rules, \"access\", or all of its document, cannot be read: {}",
                            holder(), timeText(m_explanation["holder"]["since"]), locator.toString(), saidBy(refusal)),
                fmt::format("mend its document ({} says what is wrong), then restart it",
                            documentCheck(process, plainProcessOf(locator))),
                {}};
    }
    return {std::string(Verdict::WORKS),
            fmt::format("{} has provided it since {} at {}, and answers, but not everything to {}: {}", holder(),
                        timeText(m_explanation["holder"]["since"]), locator.toString(),
                        kesa::access::userName(::geteuid()), saidBy(refusal)),
            fmt::format("kesactl may {} call {} COMMAND says whether that command is answered",
                        kesa::access::userName(::geteuid()), util::shellWord(m_arguments.path)),
            {}};
}

/// Of a service that has let the time pass.
Verdict Search::explainNoAnswer(std::int64_t pid) const
{
    const auto note = noteOf(pid);
    if (const auto* const hold = note ? note->ownHoldOf(m_arguments.path) : nullptr) {
        return {"held", fmt::format("{} can be reached, but {}", holder(), ownHoldText(*hold)), AFTER_OWN_HOLD, {}};
    }
    Verdict verdict{"no-answer",
                    fmt::format("{} can be reached, but its service has not answered in time", holder()),
                    "it works on something else, or a handler blocks: look at its threads, or give it more --timeout",
                    {}};
    const auto* const other = note ? note->worstOwnHold() : nullptr;
    if (other != nullptr && other->services.empty()) {
        verdict.text += fmt::format("; {}, on which it may be served", ownHoldText(*other));
    }
    return verdict;
}

Answers::Answer Search::ask(const ServiceConnection::Client& client, kesa::Request request, comm::TimeNs deadline)
{
    kesa::headers::appendResponseSemantic(request, kesa::responsesemantics::SINGLE_RESPONSE);
    kesa::headers::appendTimeout(request, std::chrono::nanoseconds(deadline - comm::now()));
    Answers answers(client, request);
    return answers.next(deadline);
}

void why(const WhyArguments& arguments, int& exitCode)
{
    Search search(arguments);
    const Verdict verdict = search.run();
    print(arguments.common.isJson ? asJson(arguments.path, verdict, search.explanation())
                                  : wrapped(asLines(arguments.path, verdict)));
    exitCode = verdict.isGood() ? 0 : static_cast<int>(ExitCode::eFAILED);
}

} // namespace

void addWhy(CLI::App& app, int& exitCode)
{
    auto arguments = std::make_shared<WhyArguments>();
    CLI::App* const command = app.add_subcommand("why", "Says whether a service is there and works, and if not, why.");
    command->add_option("PATH", arguments->path, "Of the service.")->required()->check(checkPath)->type_name("");
    command->add_option("--for", arguments->process, "Also, whether this process is told of it.")
        ->check(checkProcess)
        ->type_name("PROCESS");
    addCommonOptions(*command, arguments->common, "How long it may take.");
    command->footer(
        "One answer, what to do, and what was before. Exit code: 0 when it is there and works, 1 when not.");
    command->callback([arguments, &exitCode] { why(*arguments, exitCode); });
}

} // namespace kesactl
