#include "doctor.h"

#include "Failure.h"
#include "ProcessFacts.h"
#include "RunDirectoryFacts.h"
#include "System.h"
#include "output.h"
#include "reviewSettings.h"

#include <CLI/CLI.hpp>
#include <backend/readCommSettings.h>
#include <common/RegistryPlace.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <protocol/Frame.h>
#include <runtime/v02/config/reviewDocument.h>
#include <tracing/Sink.h>
#include <transport/RunDirectory.h>

#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace kesactl {
namespace {

using kesa::commadapter::transport::RunDirectory;
using kesa::runtime::v02::ConfigReport;
using kesa::runtime::v02::KesaConfig;
using kesa::runtime::v02::KesaRuntime;
using Name = RunDirectoryFacts::Name;
using Realm = RunDirectoryFacts::Realm;

/// All that decides whether the processes of this machine find each other, and what is wrong.
struct Page {
    std::string text;
    std::vector<std::string> findings; ///< each a sentence with what to do

    void add(std::string_view name, std::string_view value)
    {
        text += value.empty() ? fmt::format("{}\n", name) : fmt::format("{:<17} {}\n", name, value);
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
    for (const char* const name : {"KESA_CONFIG", "KESA_CONFIG_DIR", "KESA_RUN_DIR", "XDG_RUNTIME_DIR", "KESA_NODE"}) {
        const char* const value = ::secure_getenv(name);
        page.add(fmt::format("${}", name), value == nullptr ? "not set" : value);
    }
}

/// Answers the run directory that the document names, or nothing.
std::string addConfiguration(Page& page, const std::string& process)
{
    constexpr std::size_t MOST = 5;
    ConfigReport report;
    const KesaConfig config = KesaConfig::readOr(process, KesaRuntime::WITH_REGISTRYD, &report);
    reviewDocument(report);
    reviewSettings(config, "", report);
    page.add("configuration", report.file.empty() ? "no file: the built-in document counts" : report.file);
    std::size_t count = 0;
    for (const auto& complaint : report.complaints) {
        if (complaint.severity >= 3 && ++count <= MOST) {
            page.findings.push_back(fmt::format("{}: {}{}{}; kesactl check-config says where",
                                                report.file.empty() ? "the configuration" : report.file, complaint.path,
                                                complaint.path.empty() ? "" : ": ", complaint.text));
        }
    }
    if (count > MOST) {
        page.findings.push_back(fmt::format("{} more complaints; see kesactl check-config", count - MOST));
    }
    std::vector<std::string> said; // by the review
    return kesa::commadapter::readCommSettings(report.root["comm"], said).runDir;
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

void addRealm(Page& page, const RunDirectoryFacts& facts)
{
    page.add("realm", facts.realmState == Realm::eMISSING ? "none" : facts.realm);
    if (facts.realmState == Realm::eBAD) {
        page.findings.push_back(fmt::format("{}/realm does not hold 16 hex digits; remove it when no process uses the "
                                            "directory",
                                            facts.path));
    } else if (facts.realmState == Realm::eMISSING && !facts.names.empty()) {
        page.findings.push_back(fmt::format("{}/realm was removed, so processes started from now on are of another "
                                            "realm than those that run; restart all of them",
                                            facts.path));
    }
}

/// What keeps others from the process, or is left of it.
void addFinding(Page& page, const std::string& directory, const Name& name, const ProcessFacts& process)
{
    const auto find = [&](std::string_view what) {
        page.findings.push_back(fmt::format("{} ({}): {}", name.name, name.holder, what));
    };
    const std::string socket = directory + "/" + name.name + ".sock";
    if (name.holder == 0 && name.connectError != 0) {
        page.findings.push_back(
            fmt::format("{} is left of a process that was killed; the next one of that name replaces "
                        "it, or remove it",
                        socket));
    } else if (name.holder != 0 && !name.hasSocket) {
        find("has its name, but its socket was removed, so nobody can reach it; restart it, and keep cleaners out of "
             "the run directory");
    } else if (name.connectError == EACCES) {
        find(fmt::format("this user may not connect to {} ({}); join the group, or set \"socket_group\" and "
                         "\"socket_mode\" of that process",
                         socket, name.rights));
    } else if (name.connectError != 0) {
        find(fmt::format("cannot be connected to: {}; it is just starting or ending, else restart it",
                         reasonOf(name.connectError)));
    }
    if (process.isStopped) {
        find(fmt::format("is stopped, and answers nothing; continue it with kill -CONT {}, or end its debugger",
                         name.holder));
    }
    if (process.isReplaced) {
        find("its program or library was replaced while it runs; restart it");
    }
}

void addNames(Page& page, const RunDirectoryFacts& facts)
{
    page.add("names", facts.names.empty() ? "none is held" : "");
    for (const Name& name : facts.names) {
        const ProcessFacts process(name.holder);
        std::string line = "nobody: its socket is left";
        if (name.holder != 0 && !process.isThere) {
            line = fmt::format("process {}, which is not visible from here", name.holder);
        } else if (name.holder != 0) {
            line = fmt::format("process {} of {}, {}{}{}", name.holder, process.user, process.executable,
                               process.library.empty() ? "" : ", ", process.library);
        } else if (name.hasSocket && name.connectError == 0) {
            line = "a process that is not visible from here, as of another container";
        }
        page.add("  " + name.name, line);
        addFinding(page, facts.path, name, process);
    }
    if (!facts.strays.empty()) {
        page.findings.push_back(
            fmt::format("{} has files that are none of Kesa's or were left by a killed process ({}), "
                        "such as {}; remove them",
                        facts.path, facts.strays.size(), facts.strays.front()));
    }
}

/// Where else processes may be meeting.
std::vector<std::string> otherPlaces()
{
    std::vector<std::string> places = {"/run/kesa"};
    const auto add = [&places](const char* variable, const char* below) {
        const char* const value = ::secure_getenv(variable);
        if (value != nullptr && *value != '\0') {
            places.push_back(std::string(value) + below);
        }
    };
    add("KESA_RUN_DIR", "");
    add("XDG_RUNTIME_DIR", "/kesa");
    std::error_code failed;
    for (const auto& user : std::filesystem::directory_iterator("/run/user", failed)) {
        places.push_back(user.path().string() + "/kesa");
    }
    return places;
}

bool isHeld(const RunDirectoryFacts& facts, std::string_view process)
{
    return std::any_of(facts.names.begin(), facts.names.end(),
                       [process](const Name& name) { return name.name == process && name.holder != 0; });
}

void addOthers(Page& page, const RunDirectoryFacts& chosen, std::string_view registry)
{
    std::vector<std::pair<dev_t, ino_t>> seen = {{chosen.device, chosen.inode}};
    for (const std::string& place : otherPlaces()) {
        const RunDirectoryFacts other(place);
        const std::pair identity(other.device, other.inode);
        if (other.error != 0 || std::find(seen.begin(), seen.end(), identity) != seen.end()) {
            continue;
        }
        seen.push_back(identity);
        const auto held =
            std::count_if(other.names.begin(), other.names.end(), [](const Name& name) { return name.holder != 0; });
        page.add("there is, too", fmt::format("{}, realm {}, {} names held", place,
                                              other.realmState == Realm::eGOOD ? other.realm : "none", held));
        if (isHeld(other, registry) && !isHeld(chosen, registry)) {
            page.findings.push_back(fmt::format("a registry runs in {}, and none in {}, which counts here; set "
                                                "KESA_RUN_DIR={}, or start the registry here",
                                                place, chosen.path, place));
        }
    }
}

/// Answers the name of the process that hosts the registry.
std::string addRegistry(Page& page, const apps::RegistryPlace& place)
{
    page.add("registry", place.locators.empty() ? "none" : place.locators.front().toString());
    if (!place.problem.empty()) {
        page.findings.push_back(place.problem);
    }
    if (place.locators.empty()) {
        return {};
    }
    const std::string_view authority = place.locators.front().authority();
    return std::string(authority.substr(0, authority.find('+')));
}

void addAnswer(Page& page, const apps::RegistryPlace& place)
{
    if (!place.problem.empty()) {
        return;
    }
    try {
        const System system;
        const Services services = system.view("**")->list(comm::now() + 2 * comm::SECOND, true).services;
        page.add("it answers", fmt::format("{} services", services.size()));
    } catch (const Failure& failure) {
        page.add("it answers", "nothing");
        page.findings.push_back(failure.text);
    }
}

void diagnose(int& exitCode)
{
    if (::secure_getenv("KESA_TRACE") == nullptr) {
        tracing::setThreshold("*", 5); // everything is said below
    }
    const std::string process = "kesactl-" + std::to_string(::getpid());
    Page page;
    addMachine(page);
    const RunDirectory runDirectory(addConfiguration(page, process));
    const apps::RegistryPlace place = apps::findRegistryPlace(process, KesaRuntime::WITH_REGISTRYD);
    const std::string registry = addRegistry(page, place);
    page.add("run directory", fmt::format("{} ({})", runDirectory.path(), runDirectory.source()));
    const RunDirectoryFacts facts(runDirectory.path());
    if (facts.error != 0) {
        page.findings.push_back(fmt::format("the run directory {} cannot be looked at: {}; the first process makes it "
                                            "when the folder around it is there and writable",
                                            facts.path, reasonOf(facts.error)));
    } else {
        addRights(page, facts);
        addRealm(page, facts);
        addNames(page, facts);
    }
    addOthers(page, facts, registry);
    addAnswer(page, place);
    page.text += page.findings.empty() ? "nothing is wrong\n" : "\n";
    for (std::size_t i = 0; i < page.findings.size(); ++i) {
        page.text += fmt::format("{}. {}\n", i + 1, page.findings[i]);
    }
    exitCode = page.findings.empty() ? 0 : 1;
    print(page.text);
}

} // namespace

void addDoctor(CLI::App& app, int& exitCode)
{
    CLI::App* const command =
        app.add_subcommand("doctor", "Looks at all by which processes find each other here, and says what is wrong.");
    command->footer("It changes nothing, except that the registry sees a guest. Exit code: 0 when nothing is wrong, 1 "
                    "when something is.");
    command->callback([&exitCode] { diagnose(exitCode); });
}

} // namespace kesactl
