#include "doctor.h"

#include "Failure.h"
#include "ProcessFacts.h"
#include "ProcessReport.h"
#include "RunDirectoryFacts.h"
#include "System.h"
#include "explainNoRegistry.h"
#include "otherRunDirectories.h"
#include "output.h"
#include "reviewSettings.h"
#include "runDirectoryProblem.h"
#include "visible.h"

#include <CLI/CLI.hpp>
#include <backend/readCommSettings.h>
#include <common/RegistryPlace.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <protocol/Frame.h>
#include <runtime/v02/config/reviewDocument.h>
#include <transport/RunDirectory.h>

#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <system_error>

namespace kesactl {
namespace {

using kesa::commadapter::transport::RunDirectory;
using kesa::commadapter::transport::SYSTEM_RUN_DIRECTORY;
using kesa::runtime::v02::ConfigReport;
using kesa::runtime::v02::KesaConfig;
using kesa::runtime::v02::KesaRuntime;
using util::config::Dictionary;
using util::config::Value;
using Name = RunDirectoryFacts::Name;
using Realm = RunDirectoryFacts::Realm;

constexpr std::size_t MOST = 20; ///< of a kind; more would hide the rest

/// All that decides whether the processes of this machine find each other, and what is wrong.
struct Page {
    std::string text;
    Dictionary facts;                  ///< what the text says, in JSON
    std::vector<std::string> findings; ///< each a sentence with what to do

    void addLine(std::string_view name, std::string_view value)
    {
        text += value.empty() ? fmt::format("{}\n", visible(name))
                              : fmt::format("{:<17} {}\n", visible(name), visible(value));
    }
    /// A line, and the same as a member of the facts.
    void add(std::string_view name, const std::string& value)
    {
        addLine(name, value);
        std::string key(name);
        std::replace(key.begin(), key.end(), ' ', '_');
        facts.set(key, value);
    }
    /// Findings of one kind.
    void find(std::vector<std::string>& kind, std::string_view whatMore)
    {
        const std::size_t size = kind.size();
        kind.resize(std::min(size, MOST));
        findings.insert(findings.end(), kind.begin(), kind.end());
        if (size > MOST) {
            findings.push_back(fmt::format("{} more {}", size - MOST, whatMore));
        }
    }
};

std::string reasonOf(int error)
{
    return std::system_category().message(error);
}

void addMachine(Page& page)
{
    utsname system{};
    ::uname(&system);
    page.add("kesactl", fmt::format("{}, protocol {} to {}", KESA_VERSION, kesa::commadapter::protocol::LOWEST_VERSION,
                                    kesa::commadapter::protocol::HIGHEST_VERSION));
    page.add("kernel",
             fmt::format("{} {}", static_cast<const char*>(system.sysname), static_cast<const char*>(system.release)));
    page.add("user", fmt::format("{}, group {}", userName(::geteuid()), groupName(::getegid())));
    Dictionary environment;
    for (const char* const name : {"KESA_CONFIG", "KESA_CONFIG_DIR", "KESA_RUN_DIR", "XDG_RUNTIME_DIR", "KESA_NODE"}) {
        const char* const value = ::secure_getenv(name);
        page.addLine(fmt::format("${}", name), value == nullptr ? "not set" : value);
        environment.set(name, value == nullptr ? Value(nullptr) : Value(value));
    }
    page.facts.set("environment", environment);
}

std::string describe(const ConfigReport::Complaint& complaint, const ConfigReport& report)
{
    if (!report.root.isDefined()) { // the text says where
        return complaint.text + "; correct it and start the processes again";
    }
    return fmt::format("{}: {}{}{}; kesactl check-config says where",
                       report.file.empty() ? "the configuration" : report.file, complaint.path,
                       complaint.path.empty() ? "" : ": ", complaint.text);
}

struct Configuration {
    bool isValid;
    std::string runDirectory; ///< that the document names, or empty
};

Configuration addConfiguration(Page& page, const std::string& process)
{
    constexpr std::size_t MOST_COMPLAINTS = 5;
    ConfigReport report;
    const KesaConfig config = KesaConfig::readOr(process, KesaRuntime::WITH_REGISTRYD, &report);
    reviewDocument(report);
    reviewSettings(config, "", report);
    page.add("configuration",
             report.file.empty() ? "no file: the built-in document counts"
             : config.m_valid
                 ? report.file
                 : report.file + ", which is not valid: a process goes on with defaults, which ask for no registry");
    std::size_t count = 0;
    for (const auto& complaint : report.complaints) {
        if (complaint.severity >= 3 && ++count <= MOST_COMPLAINTS) {
            page.findings.push_back(describe(complaint, report));
        }
    }
    if (count > MOST_COMPLAINTS) {
        page.findings.push_back(fmt::format("{} more complaints; see kesactl check-config", count - MOST_COMPLAINTS));
    }
    std::vector<std::string> said; // by the review
    return {config.m_valid, kesa::commadapter::readCommSettings(report.root["comm"], said).runDir};
}

void addRights(Page& page, const RunDirectoryFacts& facts)
{
    page.add("rights",
             fmt::format("{}, {} for this user", facts.rights, facts.isWritable ? "writable" : "not writable"));
    if (!facts.isWritable) {
        page.findings.push_back(
            fmt::format("this user cannot provide services: {} is not writable for {}; use its user "
                        "or group, or change its rights",
                        facts.path, userName(::geteuid())));
    }
}

bool isLost(const Name& name)
{
    return name.isLost;
}

/// Processes whose files somebody has removed: all that is wrong with them has this cause.
void addLost(Page& page, const RunDirectoryFacts& facts)
{
    if (const std::string lost = holdersOf(facts, true); !lost.empty()) {
        page.findings.push_back(
            fmt::format("somebody has removed files from {} under running processes: who starts now does not find {}; "
                        "restart them, and keep cleaners out of the run directory",
                        facts.path, lost));
    }
}

/// Nobody has the name, and nobody listens.
bool isLeft(const Name& name)
{
    return name.holder == 0 && name.connectError != 0 && name.connectError != EACCES;
}

void addRealm(Page& page, const RunDirectoryFacts& facts)
{
    page.add("realm", facts.realmState == Realm::eGOOD ? facts.realm : "none");
    if (facts.realmState == Realm::eUNREADABLE) {
        page.findings.push_back(fmt::format("{}/realm cannot be read by this user; give it the mode 0644", facts.path));
    } else if (facts.realmState == Realm::eBAD) {
        page.findings.push_back(fmt::format("{}/realm does not hold 16 hex digits; remove it when no process uses the "
                                            "directory",
                                            facts.path));
    } else if (facts.realmState == Realm::eMISSING && std::none_of(facts.names.begin(), facts.names.end(), isLost) &&
               !std::all_of(facts.names.begin(), facts.names.end(), isLeft)) {
        page.findings.push_back(fmt::format("{}/realm was removed, so processes started from now on are of another "
                                            "realm than those that run; restart all of them",
                                            facts.path));
    }
}

/// What keeps others from the processes. All are asked at once. `blamed`: of that one it is said already.
std::vector<std::string> findWrong(RunDirectoryFacts facts, const std::string& blamed, comm::TimeNs deadline)
{
    std::erase_if(facts.names, [](const Name& name) { return isLeft(name) || isLost(name); });
    std::vector<std::string> wrong;
    for (const ProcessReport& report : lookAtProcesses(facts, "", deadline)) {
        if (!report.advice.empty() && report.note != "does not say" && report.name != blamed) {
            wrong.push_back(report.advice);
        }
        if (report.facts.isReplaced) {
            wrong.push_back(fmt::format("{} ({}): its program or library was replaced while it runs; restart it",
                                        report.name, report.pid));
        }
    }
    return wrong;
}

std::string describe(const Name& name, const ProcessFacts& process)
{
    const pid_t pid = name.holder != 0 ? name.holder : name.listener;
    if (pid == 0) {
        return isLeft(name) ? "nobody: its socket is left"
                            : "a process that is not visible from here, as of another container";
    }
    return process.isThere ? fmt::format("process {} of {}, {}{}{}{}", pid, process.user, process.executable,
                                         process.library.empty() ? "" : ", ", process.library,
                                         name.isLost        ? "; its files were removed"
                                         : name.holder == 0 ? "; it listens, and does not hold the name"
                                                            : "")
                           : fmt::format("process {}, which is not visible from here", pid);
}

void addNames(Page& page, const RunDirectoryFacts& facts, const std::string& blamed, comm::TimeNs deadline)
{
    page.addLine("names", facts.names.empty() ? "none is held" : "");
    Value::Array names;
    std::vector<std::string> left;
    for (const Name& name : facts.names) {
        const ProcessFacts process(name.holder != 0 ? name.holder : name.listener);
        const std::string socket = facts.path + "/" + name.name + ".sock";
        if (isLeft(name)) {
            left.push_back(fmt::format(
                "{} is left of a process that was killed; the next one of that name replaces it, or remove it",
                socket));
        }
        if (!isLeft(name) || left.size() <= MOST) {
            page.addLine("  " + name.name, describe(name, process));
        }
        Dictionary entry{{"name", name.name}};
        if (name.holder != 0) {
            entry.set("pid", std::int64_t{name.holder});
            entry.set("user", process.user);
            entry.set("executable", process.executable);
            entry.set("library", process.library);
        }
        names.emplace_back(std::move(entry));
    }
    if (left.size() > MOST) {
        page.addLine(fmt::format("  and {} more", left.size() - MOST), "nobody: their sockets are left");
    }
    std::vector<std::string> wrong = findWrong(facts, blamed, deadline);
    page.find(wrong, "findings about processes with a name here; see to those above first");
    page.find(left, "sockets are left of processes that were killed");
    page.facts.set("names", std::move(names));
    if (!facts.strays.empty()) {
        page.findings.push_back(
            fmt::format("{} has files that are none of Kesa's or were left by a killed process ({}), "
                        "such as {}; remove them",
                        facts.path, facts.strays.size(), facts.strays.front()));
    }
}

/// One of this user that chose before it could choose as it would now.
void addLeftBehind(Page& page, const RunDirectoryFacts& other, const std::string& chosen)
{
    const std::string ofUser = ::secure_getenv("XDG_RUNTIME_DIR") == nullptr ? "" : ::secure_getenv("XDG_RUNTIME_DIR");
    if (other.path != ofUser + "/kesa" || chosen != SYSTEM_RUN_DIRECTORY) {
        return;
    }
    for (const Name& name : other.names) {
        if (name.holder != 0) {
            page.findings.push_back(
                fmt::format("{} ({}) meets others in {}, not in {}: it was started before this user "
                            "could write there; restart it",
                            name.name, name.holder, other.path, chosen));
        }
    }
}

void addOthers(Page& page, const RunDirectoryFacts& chosen)
{
    Value::Array others;
    for (const RunDirectoryFacts& other : otherRunDirectories(chosen.path)) {
        const auto held =
            std::count_if(other.names.begin(), other.names.end(), [](const Name& name) { return name.holder != 0; });
        const std::string realm = other.realmState == Realm::eGOOD ? other.realm : "none";
        const std::string holders = holdersOf(other, false);
        page.addLine("there is, too", fmt::format("{}, realm {}, {}{}", other.path, realm,
                                                  holders.empty() ? "without a process" : "in which run ", holders));
        others.emplace_back(Dictionary{{"path", other.path}, {"realm", realm}, {"names_held", std::int64_t{held}}});
        addLeftBehind(page, other, chosen.path);
    }
    page.facts.set("other_run_directories", std::move(others));
}

void addRegistry(Page& page, const apps::RegistryPlace& place, bool isConfigurationValid)
{
    page.add("registry", place.locators.empty() ? "none" : place.locators.front().toString());
    if (!place.problem.empty() && isConfigurationValid) { // else it is said already
        page.findings.push_back(place.problem);
    }
}

/// What the registry says.
struct Answer {
    std::optional<std::uint64_t> services; ///< how many; absent: it does not answer
    std::string silent;                    ///< the process that should, and does not
    std::string problem;
};

Answer askRegistry(const apps::RegistryPlace& place, comm::TimeNs deadline)
{
    Answer answer;
    if (!place.problem.empty()) {
        return answer;
    }
    // Where nobody listens now, there is nothing to wait for.
    std::vector<Unreached> found;
    for (const kesa::url& locator : place.locators) {
        found.push_back(explainNoRegistry(locator, std::max<comm::TimeNs>(deadline - comm::now(), 0)));
        if (found.back().cause == "slow") {
            break;
        }
    }
    if (found.back().cause != "slow") {
        const std::string locator = place.locators.front().toString();
        answer.silent = processOf(place.locators.front());
        answer.problem =
            fmt::format("{} {}: {}", found.front().isSomebodyThere ? "no answer of the registry at" : "no registry at",
                        locator, found.front().sentence());
        return answer;
    }
    try {
        const System system;
        answer.services = system.view("**")->list(deadline, true).services.size();
    } catch (const Failure& failure) {
        answer.problem = failure.sentence();
    }
    return answer;
}

/// The rule by which it was chosen, as far as it shows.
std::string reasonOf(const RunDirectory& directory)
{
    const std::string source = directory.source();
    if (source == "run_dir") {
        return ::secure_getenv("KESA_RUN_DIR") == nullptr ? source : "run_dir, which wins over $KESA_RUN_DIR";
    }
    return source == "$XDG_RUNTIME_DIR"
               ? fmt::format("{}, since this user may neither write into {} nor make it", source, SYSTEM_RUN_DIRECTORY)
               : source;
}

void addRunDirectory(Page& page, const RunDirectory& directory, const RunDirectoryFacts& facts, const Answer& answer,
                     comm::TimeNs deadline)
{
    page.addLine("run directory", fmt::format("{} ({})", directory.path(), reasonOf(directory)));
    page.facts.set("run_directory", directory.path());
    page.facts.set("run_directory_from", std::string(directory.source()));
    if (facts.error == 0) {
        addRights(page, facts);
        addLost(page, facts);
        addRealm(page, facts);
        addNames(page, facts, answer.silent, deadline);
        return;
    }
    page.add("rights", facts.error == ENOENT ? "not there yet; the first process makes it" : reasonOf(facts.error));
    if (!facts.names.empty()) {
        addLost(page, facts);
        addNames(page, facts, answer.silent, deadline);
    }
    if (const RunDirectoryProblem problem = findProblem(facts, directory.source()); !problem.text.empty()) {
        page.findings.push_back(problem.sentence());
    }
}

/// Not if another finding has said why it does not answer.
void addAnswer(Page& page, const apps::RegistryPlace& place, const RunDirectoryFacts& facts, const Answer& answer)
{
    if (!place.problem.empty()) {
        return;
    }
    page.addLine("it answers", answer.services ? fmt::format("{} services", *answer.services) : "nothing");
    if (answer.services) {
        page.facts.set("services", *answer.services);
    }
    const bool isLostOne = std::any_of(facts.names.begin(), facts.names.end(), [&answer](const Name& name) {
        return name.isLost && name.name == answer.silent;
    });
    const bool isUnusable = facts.error != 0 && !findProblem(facts, "").text.empty();
    if (!answer.problem.empty() && !isLostOne && !isUnusable) {
        page.findings.push_back(answer.problem);
    }
}

std::string asText(const Page& page)
{
    std::string text = page.text + (page.findings.empty() ? "nothing is wrong\n" : "\n");
    for (std::size_t i = 0; i < page.findings.size(); ++i) {
        text += fmt::format("{}. {}\n", i + 1, visible(page.findings[i]));
    }
    return text;
}

std::string asJson(const Page& page)
{
    Value::Array findings;
    for (const std::string& finding : page.findings) {
        findings.emplace_back(finding);
    }
    const Value whole(Dictionary{{"findings", std::move(findings)}, {"facts", page.facts}});
    return whole.toText() + '\n';
}

bool diagnose(bool isJson)
{
    const std::string process = "kesactl-" + std::to_string(::getpid());
    const comm::TimeNs begin = comm::now();
    Page page;
    addMachine(page);
    const Configuration configuration = addConfiguration(page, process);
    const RunDirectory runDirectory(configuration.runDirectory);
    const apps::RegistryPlace place = apps::findRegistryPlace(process, KesaRuntime::WITH_REGISTRYD);
    addRegistry(page, place, configuration.isValid);
    const RunDirectoryFacts facts(runDirectory.path());
    const Answer answer = askRegistry(place, begin + comm::SECOND);
    addRunDirectory(page, runDirectory, facts, answer, begin + 2 * comm::SECOND);
    addOthers(page, facts);
    addAnswer(page, place, facts, answer);
    print(isJson ? asJson(page) : wrapped(asText(page)));
    return !page.findings.empty();
}

} // namespace

void addDoctor(CLI::App& app, int& exitCode)
{
    CLI::App* const command =
        app.add_subcommand("doctor", "Looks at all by which processes find each other here, and says what is wrong.");
    command->footer("It changes nothing, except that the registry sees a guest. Exit code: 0 when nothing is wrong, 1 "
                    "when something is.");
    const auto isJson = std::make_shared<bool>();
    command->add_flag("--json", *isJson, "One JSON object: facts, and what is wrong.");
    command->callback([&exitCode, isJson] { exitCode = diagnose(*isJson) ? 1 : 0; });
}

} // namespace kesactl
