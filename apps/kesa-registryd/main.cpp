// kesa-registryd: the process that hosts the registry. It claims its name, registers the registry with its runtime as
// the first service, says that it is ready, and waits for the signal to end. What its clients do cannot end it.

#include "HeapTrimmer.h"
#include "HostCheck.h"
#include "ServiceManager.h"
#include "Watchdog.h"

#include <CLI/CLI.hpp>
#include <common/standard_descriptors.h>
#include <kesa/commadapter/createBackend.h>
#include <kesa/ease/announceCrashes.h>
#include <kesa/reasonOf.h>
#include <kesa/registry/RegistryHost.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <obr/visible.h>
#include <tracing/Sink.h>
#include <util/nearestName.h>

#include <fmt/format.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace registryd {
namespace {

using kesa::runtime::v02::KesaRuntime;

const char* const FOOTER =
    R"(Without a configuration file the registry is at ipc://NAME/registry; processes without one look for it at
ipc://kesa-registryd/registry. The run directory, in which they find each other, is $KESA_RUN_DIR, /run/kesa,
or one of this user's own. "kesactl doctor" says which one counts, and why.

It is ready when it prints "kesa-registryd: ready at LOCATOR", and tells the service manager. SIGTERM and SIGINT end
it. SIGHUP has it read "registry", "policy" of its document again; one that is broken leaves the policy as it was.

Where the service manager has a WatchdogSec for it, as the unit has with 30 s, it tells that it answers three times in that
time. A registry that hangs is so ended (SIGABRT) and started again; WatchdogSec=0 lets a debugger hold it.

Exit codes: 0 ended by a signal, 1 failed, 2 wrong arguments or configuration, 3 another process has the name,
or it is kept for another user.)";

/// A record or query has 32 KiB, a list 48: nothing that is meant for a registry is larger.
constexpr std::uint32_t LARGEST_MESSAGE = 256U << 10U;

struct Arguments {
    std::string config;
    std::string name = "kesa-registryd";
};

int complain(ExitCode exitCode, const std::string& problem)
{
    fmt::print(stderr, "kesa-registryd: {}\n", obr::visible(problem));
    return static_cast<int>(exitCode);
}

/// Blocked before the first thread is made, so that only the wait for them takes them. What is ignored stays so, as
/// SIGINT in what a script starts with '&'; SIGHUP, which `nohup` ignores, ends nothing here.
sigset_t blockSignals()
{
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        sigaction(signal, nullptr, &action);
        if (signal == SIGHUP || action.sa_handler != SIG_IGN) { // NOLINT: a macro of the system's
            sigaddset(&blocked, signal);
        }
    }
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    std::signal(SIGHUP, SIG_DFL);
    std::signal(SIGPIPE, SIG_IGN); // nobody may read the line that says it is ready
    return blocked;
}

/// Each client costs two, and the limit that a shell gives is meant for programs that wait by `select`.
void raiseDescriptorLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void tellReady(ServiceManager& manager, const std::string& locators)
{
    fmt::print("kesa-registryd: ready at {}\n", locators);
    std::fflush(stdout);
    manager.tell("READY=1\nSTATUS=The registry is at " + locators);
}

void reload(kesa::registry::RegistryHost& host, ServiceManager& manager, const std::string& locators)
{
    manager.tell("RELOADING=1");
    const std::string problem = host.reloadPolicy();
    if (problem.empty()) {
        const std::string policy = obr::visible(host.describePolicy());
        fmt::print("kesa-registryd: the policy has been read again: {}\n", policy);
        std::fflush(stdout);
        manager.tell("READY=1\nSTATUS=The registry is at " + locators + "; policy: " + policy);
        return;
    }
    complain(ExitCode::eCONFIGURATION, "the policy stays as it was: " + problem);
    manager.tell("READY=1\nSTATUS=The policy is that of before: " + obr::visible(problem));
}

int awaitSignal(const sigset_t& signals, HeapTrimmer& heap)
{
    constexpr timespec BETWEEN_LOOKS{5, 0};
    int signal = -1;
    while (signal < 0) {
        signal = sigtimedwait(&signals, nullptr, &BETWEEN_LOOKS);
        if (signal < 0 && errno == EAGAIN) { // else it was stopped and goes on
            heap.look();
        }
    }
    return signal;
}

ExitCode serve(const std::vector<kesa::url>& own, const sigset_t& signals, ServiceManager& manager)
{
    const std::string locators = listOf(own);
    // Kept by the host until the registration has ended, which may be after this.
    const auto exitCode = std::make_shared<std::atomic<ExitCode>>(ExitCode::eENDED);
    kesa::registry::RegistryHost host(
        *KesaRuntime::getInstance(), [&manager, locators] { tellReady(manager, locators); },
        [exitCode](const kesa::Response& error) {
            *exitCode = error.getStatus() == 400 ? ExitCode::eCONFIGURATION : ExitCode::eFAILED;
            complain(*exitCode, "the registry cannot be provided: " + kesa::reasonOf(error));
            ::kill(::getpid(), SIGTERM); // ends the wait below
        });
    {
        const Watchdog watchdog(own.front(), manager);
        HeapTrimmer heap;
        while (awaitSignal(signals, heap) == SIGHUP) {
            reload(host, manager, locators);
        }
    }
    manager.tell("STOPPING=1");
    host.stop();
    return *exitCode;
}

int run(const Arguments& arguments)
{
    const sigset_t signals = blockSignals();
    raiseDescriptorLimit();
    kesa::commadapter::setDefaultMessageLimit(LARGEST_MESSAGE);
    if (!arguments.config.empty()) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread so far.
        setenv("KESA_CONFIG", arguments.config.c_str(), 1);
    }
    const std::string document =
        fmt::format(R"({{"use_registry": true, "service_registry_locators": {{"*": ["ipc://{}/registry"]}},)"
                    R"( "serializer-formats": {{"*": ["application/json"]}}}})",
                    arguments.name);
    const HostCheck check = checkHost(arguments.name, document);
    if (check.exitCode != ExitCode::eENDED) {
        return complain(check.exitCode, check.problem);
    }
    ServiceManager manager; // the runtime's threads tell it
    const bool failed = KesaRuntime::initInstance(arguments.name, document);
    ExitCode exitCode = ExitCode::eFAILED;
    if (failed) {
        complain(exitCode, "the runtime did not start; see its traces");
    } else if (!KesaRuntime::isRegistryHost()) { // somebody was faster since it was looked at, or it was refused
        const HostCheck again = checkHost(arguments.name, document);
        exitCode = again.exitCode == ExitCode::eENDED ? ExitCode::eFAILED : again.exitCode;
        complain(exitCode, again.problem.empty() ? "the runtime did not get its name; see its traces" : again.problem);
    } else {
        exitCode = serve(check.locators, signals, manager);
    }
    // The runtime's end frees a proxy that this process does not have, and calls that an error.
    const tracing::Silence proxies("KESA_RUNTIME_BACKENDS");
    KesaRuntime::shutdown();
    return static_cast<int>(exitCode);
}

/// What a process may be called: it becomes the name of a file and a part of locators.
std::string checkName(const std::string& name)
{
    const bool isGood = !name.empty() && name.size() <= 64 && name.front() != '.' &&
                        name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-") ==
                            std::string::npos;
    return isGood ? "" : "a name has 1 to 64 of the characters A-Z a-z 0-9 . _ - and does not begin with a dot";
}

int complainOfArguments(const CLI::ParseError& error, const CLI::App& app)
{
    std::vector<std::string> names;
    for (const CLI::Option* const option : app.get_options()) {
        names.push_back(option->get_name());
    }
    std::string meant;
    for (const std::string& word : app.remaining()) {
        const std::string option = word.substr(0, word.find('='));
        const std::string_view nearest = util::nearestName(option, {names.begin(), names.end()});
        meant = meant.empty() && !nearest.empty() ? fmt::format("; did you mean {}?", nearest) : meant;
    }
    return complain(ExitCode::eCONFIGURATION,
                    fmt::format("{}{}", error.what(), meant.empty() ? "; see kesa-registryd --help" : meant));
}

} // namespace
} // namespace registryd

int main(int argc, char** argv)
{
    apps::holdStandardDescriptors();
    kesa::announceCrashes();
    registryd::Arguments arguments;
    CLI::App app("Hosts the registry, through which the Kesa processes of a machine find each other.",
                 "kesa-registryd");
    app.set_version_flag("--version", "kesa-registryd " KESA_VERSION);
    app.add_option("--config", arguments.config, "The configuration document, instead of the one that would be found.")
        ->type_name("FILE");
    app.add_option("--name", arguments.name,
                   "The name of this process, in the built-in document also that of the host.")
        ->check(registryd::checkName)
        ->type_name("NAME")
        ->capture_default_str();
    app.footer(registryd::FOOTER);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return error.get_exit_code() == 0 ? app.exit(error) : registryd::complainOfArguments(error, app);
    }
    return registryd::run(arguments);
}
