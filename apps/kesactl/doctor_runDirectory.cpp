#include "doctor_runDirectory.h"

#include "missingRight.h"
#include "otherRunDirectories.h"
#include "processNames.h"
#include "processNotes.h"
#include "replacedRealm.h"
#include "runDirectoryProblem.h"

#include <rules/usersAndGroups.h>
#include <util/shellWord.h>

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace kesactl {
namespace {

using kesa::access::userName;
using kesa::commadapter::transport::RunDirectory;
using kesa::commadapter::transport::SYSTEM_RUN_DIRECTORY;
using util::config::Dictionary;
using util::config::Value;
using Name = RunDirectoryFacts::Name;
using Realm = RunDirectoryFacts::Realm;

std::string reasonOf(int error)
{
    return std::system_category().message(error);
}

void addRights(DoctorPage& page, const RunDirectoryFacts& facts)
{
    page.add("rights",
             fmt::format("{}, {} for this user", facts.rights, facts.isWritable ? "writable" : "not writable"));
    if (facts.writeError != 0) {
        page.findings.push_back(fmt::format(
            "this user cannot provide services: {} is {}", facts.path,
            facts.writeError == EROFS
                ? "on a read-only file system; start processes where it can be written, or name another one"
            : facts.writeError == ENOSPC
                ? "on a file system that is full; make room there (df, df -i), or name another one"
                : fmt::format("not writable for {}; {}, or name another one", userName(::geteuid()),
                              howToGetRight(facts.path, "have its owner let a group of this user use it"))));
    }
}

/// By which users may harm each other here; a process refuses to provide anything then.
void addDistrust(DoctorPage& page, const RunDirectoryFacts& facts)
{
    if (!facts.distrust.text.empty()) {
        page.findings.push_back(fmt::format("this user cannot provide services: {} {}; {}, or name another one",
                                            facts.path, facts.distrust.text, facts.distrust.advice));
    }
}

bool isLost(const Name& name)
{
    return name.isLost;
}

/// Processes whose files somebody has removed: all that is wrong with them has this cause.
void addLost(DoctorPage& page, const RunDirectoryFacts& facts)
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
    return name.holder == 0 && (!name.kind.empty() || (name.connectError != 0 && name.connectError != EACCES));
}

void addRealm(DoctorPage& page, const RunDirectoryFacts& facts, const std::vector<ProcessReport>& reports)
{
    page.add("realm", facts.realmState == Realm::eGOOD ? facts.realm : "none");
    if (facts.realmState == Realm::eUNREADABLE) {
        page.findings.push_back(fmt::format("{}/realm cannot be read by this user; give it the mode 0644", facts.path));
    } else if (facts.realmState == Realm::eBAD) {
        page.findings.push_back(fmt::format("{}/realm does not hold 16 hex digits; remove it when no process uses the "
                                            "directory",
                                            facts.path));
    } else if (const ReplacedRealm replaced = findReplacedRealm(facts, reports); !replaced.text.empty()) {
        page.findings.push_back(replaced.sentence());
    }
}

/// What keeps others from the processes. `blamed`: of that one it is said already.
std::vector<std::string> findWrong(const std::vector<ProcessReport>& reports, const std::string& blamed)
{
    std::vector<std::string> wrong;
    for (const ProcessReport& report : reports) {
        if (!report.advice.empty() && report.note != "does not say" && report.name != blamed) {
            wrong.push_back(report.advice);
        }
        if (report.areServicesClosed()) {
            wrong.push_back(fmt::format("{} ({}): its services are closed to other users, since its rules, \"access\", "
                                        "cannot be read; its log says why, and {}: mend the document, then restart it",
                                        report.plainName(), report.pid, report.documentCheck()));
        }
        for (const std::string& hold : report.holds()) {
            wrong.push_back(fmt::format("{} ({}): {}; {}", report.plainName(), report.pid, hold, AFTER_HOLD));
        }
        if (report.facts.isReplaced) {
            wrong.push_back(fmt::format("{} ({}): its program or library was replaced while it runs; restart it",
                                        report.plainName(), report.pid));
        }
    }
    return wrong;
}

std::string describe(const Name& name, const ProcessFacts& process, comm::TimeNs after)
{
    const pid_t pid = name.holder != 0 ? name.holder : name.listener;
    if (pid == 0) {
        return isLeft(name) && !name.kind.empty() ? "nobody: it is " + name.kind
               : isLeft(name) ? "nobody: its socket is left of a process that was killed; the next one of "
                                "that name replaces it"
               : name.connectError == EACCES ? "nobody who is visible from here: its socket, which this user may not "
                                               "use, is left, or of another container"
                                             : "a process that is not visible from here, as of another container";
    }
    return process.isThere ? fmt::format("process {} of {}, {}{}{}{}{}", pid, process.user, process.executable,
                                         process.library.empty() ? "" : ", ", process.library,
                                         name.isLost        ? "; its files were removed"
                                         : name.holder == 0 ? "; it listens, and does not hold the name"
                                                            : "",
                                         lateness(after))
                           : fmt::format("process {}, which is not visible from here{}", pid, lateness(after));
}

/// Of what stands where a socket belongs.
std::string explainStray(const Name& name, const std::string& socket)
{
    const std::string makerOrRoot = name.maker == "root" ? "root" : name.maker + " or root";
    if (!name.keptOut.empty() && name.listener > 0) {
        return fmt::format(
            "{} is of a process of {} (process {}), while the name is {}'s: end that one, then start {} as "
            "the user {}",
            socket, name.maker, name.listener, name.keptOut, plainName(name.name), name.keptOut);
    }
    if (!name.keptOut.empty()) {
        return fmt::format("{} is {}'s, while the name is {}'s, who cannot replace it: have {} remove it", socket,
                           name.maker, name.keptOut, makerOrRoot);
    }
    if (name.kind == "a directory") {
        return fmt::format("{} is a directory, so no process can have that name; remove it", socket);
    }
    const std::string whose = name.maker.empty() ? "of that name" : "of that name of " + makerOrRoot;
    return fmt::format("{} is {}, where a socket belongs; the next process {} replaces it, or remove it", socket,
                       name.kind, whose);
}

void addNames(DoctorPage& page, const RunDirectoryFacts& facts, const std::vector<ProcessReport>& reports,
              const std::string& blamed)
{
    page.addLine("names", facts.names.empty() ? "none is held" : "");
    Value::Array names;
    constexpr std::size_t MOST_USED = 60;
    std::size_t left = 0;
    std::size_t used = 0;
    std::vector<std::string> strays;
    for (const Name& name : facts.names) {
        const ProcessFacts process(name.holder != 0 ? name.holder : name.listener);
        const auto report = std::find_if(reports.begin(), reports.end(),
                                         [&name](const ProcessReport& each) { return each.name == name.name; });
        const comm::TimeNs after = report == reports.end() || name.isLost ? 0 : report->after;
        if ((isLeft(name) && !name.kind.empty()) || !name.keptOut.empty()) {
            strays.push_back(explainStray(name, facts.path + "/" + name.name + ".sock"));
        }
        if (isLeft(name) ? ++left <= DoctorPage::MOST : ++used <= MOST_USED) {
            page.addLine("  " + plainName(name.name), describe(name, process, after));
        }
        Dictionary entry{{"name", plainName(name.name)}};
        if (name.holder != 0) {
            entry.set("pid", std::int64_t{name.holder});
            entry.set("user", process.user);
            entry.set("executable", process.executable);
            entry.set("library", process.library);
            entry.set("files_removed", name.isLost);
        }
        if (after != 0) {
            entry.set("answered_after_ms", after / comm::MILLISECOND);
        }
        names.emplace_back(std::move(entry));
    }
    if (used > MOST_USED) {
        page.addLine(fmt::format("  and {} more", used - MOST_USED), "which have a process; kesactl ps shows all");
    }
    if (left > DoctorPage::MOST) {
        page.addLine(fmt::format("  and {} more", left - DoctorPage::MOST), "nobody: their sockets are left");
    }
    std::vector<std::string> wrong = findWrong(reports, blamed);
    page.find(wrong, "findings about processes with a name here; see to those above first");
    page.find(strays, "files stand where sockets belong");
    page.facts.set("names", std::move(names));
    if (!facts.strays.empty()) {
        page.findings.push_back(
            fmt::format("{} has files that are none of Kesa's or were left by a killed process ({}), "
                        "such as {}; remove them",
                        facts.path, facts.strays.size(), facts.strays.front()));
    }
}

/// Whoever starts under these names would fail.
void addRefused(DoctorPage& page, const RunDirectoryFacts& facts)
{
    std::vector<std::string> refused;
    for (const RunDirectoryFacts::Refusal& each : facts.refused) {
        if (each.problem.isOfAnother) {
            continue; // as it shall be
        }
        refused.push_back(fmt::format("{} cannot be started by {}: {}", plainName(each.name),
                                      each.problem.isForThisUser ? "this user" : "other users",
                                      each.problem.sentence()));
    }
    page.find(refused, "names are kept from users by their lock files");
}

/// One of this user that chose before it could choose as it would now.
void addLeftBehind(DoctorPage& page, const RunDirectoryFacts& other, const std::string& chosen)
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
                            plainName(name.name), name.holder, other.path, chosen));
        }
    }
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

/// What it says of its services and of loops of its own. Of a registration that it has ended itself only while nobody
/// else has the path.
std::vector<std::string> findWrong(const NotedProcess& note, const RunDirectoryFacts& facts, const Services* known,
                                   PolicyNow* policy)
{
    constexpr comm::TimeNs LATELY = 60 * comm::SECOND;
    std::vector<std::string> wrong; // what matters most comes last
    for (const NotedProcess::Dropped& drop : note.dropped) {
        if (known != nullptr && known->count(drop.path) == 0 && sinceWall(drop.when) < LATELY) {
            wrong.push_back(fmt::format("{} {}; {}", note.who(), dropText(drop), IS_REGISTRATION_KEPT));
        }
    }
    for (const NotedProcess::TooSlow& slow : note.tooSlow) {
        if (sinceWall(slow.when) < RECENTLY) {
            wrong.push_back(fmt::format("{}: {}; {}", note.who(), slownessText(slow), afterSlowness(slow)));
        }
    }
    for (const NotedProcess::Hold& hold : note.ownHolds) {
        if (hold.waiting > 0 && hold.time >= LONG_OWN_HOLD) {
            wrong.push_back(fmt::format("{}: {}; {}", note.who(), ownHoldText(hold), AFTER_OWN_HOLD));
        }
    }
    for (const NotedProcess::Refusal& refusal : note.refused) {
        PolicyNow::Since since =
            policy != nullptr && isForbidden(refusal) ? policy->since(forbiddenOf(note, refusal)) : PolicyNow::Since();
        wrong.push_back(fmt::format("{} runs, and {}{}; {}", note.who(), refusalText(refusal, refusal.path), since.text,
                                    since.advice.empty() ? AFTER_REFUSAL : since.advice));
    }
    const bool isKnownLost = std::any_of(facts.names.begin(), facts.names.end(),
                                         [&note](const auto& name) { return name.isLost && name.holder == note.pid; });
    if (note.isMoved && !isKnownLost) {
        wrong.push_back(fmt::format("{} runs, but {}; {}", note.who(), IS_MOVED, AFTER_MOVE));
    }
    return wrong;
}

/// Of a process that runs since before the run directory had the realm that it has, see `findReplacedRealm`.
bool isOfRealmBefore(pid_t pid, const std::vector<ProcessReport>& reports, const RunDirectoryFacts& facts)
{
    return std::any_of(reports.begin(), reports.end(), [&](const ProcessReport& report) {
        const std::string_view realm = report.answer["realm"].stringView();
        return report.pid == pid && !realm.empty() && realm != facts.realm;
    });
}

} // namespace

std::vector<ProcessReport> askAll(RunDirectoryFacts facts, comm::TimeNs deadline)
{
    std::erase_if(facts.names, [](const Name& name) { return isLeft(name) || isLost(name); });
    return lookAtProcesses(facts, deadline, true);
}

std::string lateness(comm::TimeNs after)
{
    constexpr comm::TimeNs LATE = 200 * comm::MILLISECOND;
    return after < LATE ? "" : fmt::format(", late: after {} ms", after / comm::MILLISECOND);
}

void addRunDirectory(DoctorPage& page, const RunDirectory& directory, const RunDirectoryFacts& facts,
                     const std::vector<ProcessReport>& reports, const std::string& silent)
{
    page.addLine("run directory", fmt::format("{} ({})", directory.path(), reasonOf(directory)));
    page.facts.set("run_directory", directory.path());
    page.facts.set("run_directory_from", std::string(directory.source()));
    if (facts.error == 0) {
        addRights(page, facts);
        addDistrust(page, facts);
        addLost(page, facts);
        addRealm(page, facts, reports);
        addRefused(page, facts);
        addNames(page, facts, reports, silent);
        return;
    }
    const RunDirectoryProblem problem = findProblem(facts, directory.source());
    if (problem.text.empty()) {
        page.add("rights", facts.error == ENOENT ? "not there yet; the first process makes it" : reasonOf(facts.error));
    }
    if (!facts.names.empty()) {
        addLost(page, facts);
        addNames(page, facts, reports, silent);
    }
    if (!problem.text.empty()) {
        page.findings.push_back(problem.sentence());
    }
}

void addNoted(DoctorPage& page, const std::vector<ProcessReport>& reports, const RunDirectoryFacts& facts,
              const Services* known, PolicyNow* policy, comm::TimeNs deadline)
{
    std::vector<std::string> wrong;
    for (NotedProcess& note : findNotes({}, deadline)) {
        if (!note.isHere) {
            continue;
        }
        if (isOfRealmBefore(note.pid, reports, facts)) { // why nobody takes what it provides is said already
            note.refused.clear();
        }
        std::vector<std::string> ofOne = findWrong(note, facts, known, policy);
        const bool isReported = std::any_of(reports.begin(), reports.end(),
                                            [&note](const ProcessReport& report) { return report.pid == note.pid; });
        for (const NotedProcess::Hold& hold : note.holds) {
            if (!isReported) {
                ofOne.push_back(fmt::format("{}: {}; {}", note.who(), holdText(hold), AFTER_HOLD));
            }
        }
        constexpr std::size_t MOST = 2; // the last ones; kesactl status has all
        wrong.insert(wrong.end(), ofOne.end() - static_cast<std::ptrdiff_t>(std::min(MOST, ofOne.size())), ofOne.end());
    }
    page.find(wrong, "findings about what processes say of themselves; see to those above first");
}

void addOthers(DoctorPage& page, const RunDirectoryFacts& chosen)
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

} // namespace kesactl
