// kesa_system_actor PROCESS: a process of the system that does what it is told in lines on stdin, and tells what
// happens to it in lines on stdout. `COMMANDS` below is the list of both. The end of stdin is the end of the test: it
// exits.

#include "Beliefs.h"
#include "Burst.h"
#include "Clients.h"
#include "Service.h"
#include "Ticks.h"
#include "Used.h"

#include <kesa/ease/handler.h>
#include <kesa/headers.h>
#include <kesa/mimetypes.h>
#include <kesa/responsesemantics.h>
#include <kesa/runtime/v02/KesaRuntime.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>
#include <string>

extern char** environ;

using kesa::runtime::v02::KesaRuntime;
using kesa::serviceregistry::Query;
using kesa::serviceregistry::ServiceDef;
using Update = kesa::ResourceUpdate<ServiceDef>;
using Resolved = kesa::optional<kesa::runtime::v02::ResolveResult<Client>>;

namespace {

class Actor {
public:
    explicit Actor(kesa::runtime::v02::IKesaRuntime& runtime) : m_runtime(runtime) {}

    void provide(std::istream& words);
    void withdraw(std::istream& words);
    void resolve(std::istream& words);
    void follow(std::istream& words) { m_clients.followAlways(word(words)); }
    void call(std::istream& words);
    void feed(std::istream& words);
    void tick(std::istream&) { m_ticks.start(); }
    void untick(std::istream&) { m_ticks.stop(); }
    void use(std::istream& words);
    void reach(std::istream& words);
    void track(std::istream& words);
    void untrack(std::istream& words);
    void expectAll(std::istream& words) { expect(words, true); }
    void expectSome(std::istream& words) { expect(words, false); }
    void tellBeliefs(std::istream&) { say("beliefs " + m_beliefs.json()); }
    void churn(std::istream& words);
    void burst(std::istream& words) { m_burst.add(words); }
    void release(std::istream&) { m_burst.release(); }
    void disposeBurst(std::istream&) { m_burst.dispose(); }
    void forkChild(std::istream& words);
    void spawnChild(std::istream& words);
    void handleTerm(std::istream& words);

    static std::string word(std::istream& words)
    {
        std::string next;
        words >> next;
        return next;
    }

private:
    void expect(std::istream& words, bool isAll);

    kesa::runtime::v02::IKesaRuntime& m_runtime;
    Service m_service;
    Ticks m_ticks{m_service};
    std::map<std::string, std::unique_ptr<Used>> m_used;
    Burst m_burst{m_runtime, m_service.api()};
    Clients m_clients;
    Beliefs m_beliefs{say};
    std::map<std::string, kesa::Disposable> m_registrations;
    std::map<std::string, kesa::Disposable> m_resolved;
    std::map<std::string, kesa::Disposable> m_tracked;
};

void Actor::provide(std::istream& words)
{
    const std::string path = word(words);
    m_registrations[path] = m_runtime.registerService(
        path, m_service.api(), ServiceDef::TypeEnum::pex, {"1.0.0"}, kesa::GenericObject{{"generation", word(words)}},
        kesa::handler<ServiceDef>(
            [](const ServiceDef& service) {
                say("provided " + service.path.toString() + ' ' + service.locators.front().toString());
            },
            [path](const kesa::Response& error) {
                say("refused " + path + ' ' + kesa::Response::getErrorMessageWithCode(error));
            }));
}

void Actor::withdraw(std::istream& words)
{
    m_registrations[word(words)].dispose();
}

void Actor::resolve(std::istream& words)
{
    const std::string what = word(words);
    const auto failed = [what](const kesa::Response& error) {
        say("failed " + what + ' ' + kesa::Response::getErrorMessageWithCode(error));
    };
    if (what.front() == '/') {
        const auto next = [this, what, number = m_beliefs.follow('=' + what)](const Resolved& resolved) {
            if (resolved) {
                m_clients.connected(what, resolved->api);
                m_beliefs.added('=' + what, number, what, "connected");
            } else {
                m_clients.lost(what);
                m_beliefs.removed('=' + what, number, what);
            }
        };
        m_resolved[what] = m_runtime.trackAndResolveService(what, kesa::handler<Resolved>(next, failed));
    } else {
        m_resolved[what] = m_runtime.resolveService(
            kesa::url(what), kesa::handler<kesa::optional<Client>>(
                                 [this, what](const kesa::optional<Client>& client) {
                                     client ? m_clients.connected(what, *client) : m_clients.lost(what);
                                 },
                                 failed));
    }
}

void Actor::call(std::istream& words)
{
    const std::string stream = word(words);
    const std::string what = word(words);
    const std::string resource = word(words);
    const std::string semantic = word(words);
    const Client client = m_clients.find(what);
    if (!client) {
        say("unconnected " + what);
        return;
    }
    kesa::Request request("retrieve", resource, kesa::Payload::createFromString("echo", kesa::mimetypes::TEXT));
    if (!semantic.empty()) {
        kesa::headers::appendResponseSemantic(request, semantic);
    }
    say("issued " + stream);
    client->request(request, printer(stream));
}

void Actor::feed(std::istream& words)
{
    const auto [taken, refused] = m_service.feed(std::stoul(word(words)));
    say("fed " + std::to_string(taken) + ' ' + std::to_string(refused));
}

void Actor::use(std::istream& words)
{
    const std::string path = word(words);
    m_used[path] = std::make_unique<Used>(m_runtime, path);
}

void Actor::reach(std::istream& words)
{
    m_used[word(words)]->reach(std::stoull(word(words)));
}

/// A path, or a pattern with a star.
void Actor::track(std::istream& words)
{
    const std::string what = word(words);
    auto handler = kesa::handler<Update>(
        [this, what, number = m_beliefs.follow(what)](const Update& update) {
            const std::string path = update.element.path.toString();
            if (update.type == kesa::ResourceUpdateType::eREMOVED) {
                m_beliefs.removed(what, number, path);
                return;
            }
            std::string generation = "-";
            static_cast<void>(update.element.metainfo && (*update.element.metainfo)["generation"].get(generation));
            m_beliefs.added(what, number, path, generation);
        },
        [what](const kesa::Response& error) {
            say("failed " + what + ' ' + kesa::Response::getErrorMessageWithCode(error));
        });
    m_tracked[what] = what.find('*') == std::string::npos ? m_runtime.trackService(what, std::move(handler))
                                                          : m_runtime.trackServices(Query(what), std::move(handler));
}

void Actor::untrack(std::istream& words)
{
    const std::string what = word(words);
    m_beliefs.forget(what);
    m_tracked[what].dispose();
}

void Actor::expect(std::istream& words, bool isAll)
{
    const std::string id = word(words);
    words.ignore();
    std::set<std::string> facts;
    for (std::string fact; std::getline(words, fact, ';');) {
        facts.insert(fact);
    }
    m_beliefs.expect(id, std::move(facts), isAll);
}

/// Makes the registry tell much to all who track everything.
void Actor::churn(std::istream& words)
{
    const int count = std::stoi(word(words));
    const std::string filler(std::stoul(word(words)), '.');
    for (int i = 0; i < count; ++i) {
        m_runtime
            .registerService("/churn", m_service.api(), ServiceDef::TypeEnum::pex, {"1.0.0"},
                             kesa::GenericObject{{"filler", filler}},
                             kesa::handler<ServiceDef>([](const ServiceDef&) {},
                                                       [](const kesa::Response& error) {
                                                           say("refused /churn " +
                                                               kesa::Response::getErrorMessageWithCode(error));
                                                       }))
            .dispose();
    }
    say("churned");
}

/// The child waits for its parent's death, and then reads the commands in its place. "raw": behind the back of the
/// handlers that the libraries have installed for `fork`, so that everything stays open in it.
void Actor::forkChild(std::istream& words)
{
    std::array<int, 2> parentLives{};
    static_cast<void>(::pipe2(parentLives.data(), O_CLOEXEC));
    const pid_t child = word(words) == "raw" ? ::_Fork() : ::fork();
    if (child != 0) {
        say("forked " + std::to_string(child));
        return;
    }
    ::close(parentLives[1]);
    char nothing = 0;
    static_cast<void>(::read(parentLives[0], &nothing, 1) < 0);
    say("orphaned");
}

void Actor::spawnChild(std::istream&)
{
    std::array<int, 2> untilMyEnd{};
    static_cast<void>(::pipe2(untilMyEnd.data(), O_CLOEXEC));
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, untilMyEnd[0], STDIN_FILENO);
    std::string program = "cat";
    const std::array<char*, 2> arguments{program.data(), nullptr};
    pid_t child = 0;
    const int error = ::posix_spawnp(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    say(error == 0 ? "spawned " + std::to_string(child) : "no child: error " + std::to_string(error));
}

void Actor::handleTerm(std::istream&)
{
    struct sigaction action {};
    action.sa_handler = [](int) { say(::gettid() == ::getpid() ? "sigterm main" : "sigterm elsewhere"); };
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    say("handling");
}

const std::map<std::string, void (Actor::*)(std::istream&)> COMMANDS = {
    {"provide", &Actor::provide},        // PATH [GENERATION]: provided PATH LOCATOR; refused PATH WHY, also later
    {"withdraw", &Actor::withdraw},      // PATH
    {"resolve", &Actor::resolve},        // LOCATOR or PATH: connected and lost in turn, or failed WHAT WHY
    {"follow", &Actor::follow},          // what was resolved: issued, value and error of WHAT#1, WHAT#2 ...
    {"call", &Actor::call},              // STREAM WHAT RESOURCE [SEMANTIC]: issued, value, error, completed
    {"feed", &Actor::feed},              // BYTES: fed TAKEN REFUSED
    {"tick", &Actor::tick},              // feeds a thousand times a second
    {"untick", &Actor::untick},          // ticked LAST
    {"use", &Actor::use},                // PATH: there and gone in turn, began for each stream; gap PATH BEFORE VALUE
    {"reach", &Actor::reach},            // PATH VALUE: reached PATH VALUE, once the stream has
    {"track", &Actor::track},            // PATH or PATTERN
    {"untrack", &Actor::untrack},        // what is tracked
    {"expect", &Actor::expectAll},       // ID FACT;FACT...: true ID, once it believes just that
    {"expect-some", &Actor::expectSome}, // ID FACT;FACT...: true ID, once it believes that too
    {"beliefs", &Actor::tellBeliefs},    // beliefs JSON
    {"churn", &Actor::churn},            // COUNT BYTES: churned; /churn came and went so often, with as many bytes
    {"burst", &Actor::burst},            // NAME COUNT AT [hold]: registered NAME; reached NAME, when AT are provided,
                                         // "hold": the executor stays in there; provided-all NAME
    {"release", &Actor::release},        // the executor goes on
    {"dispose-burst", &Actor::disposeBurst},
    {"fork", &Actor::forkChild},         // [raw]: forked PID; the child: orphaned
    {"spawn", &Actor::spawnChild},       // spawned PID
    {"handle-term", &Actor::handleTerm}, // handling; later sigterm main
};

/// Byte by byte: what comes after it may be a child's.
bool readLine(std::string& line)
{
    line.clear();
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) == 1) {
        if (byte == '\n') {
            return true;
        }
        line.push_back(byte);
    }
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2 || KesaRuntime::initInstance(argv[1])) {
        say("not started");
        return 1;
    }
    say("started");
    const auto actor = std::make_unique<Actor>(*KesaRuntime::getInstance());
    std::string line;
    while (readLine(line)) {
        std::istringstream words(line);
        const std::string name = Actor::word(words);
        if (name == "quit") {
            KesaRuntime::shutdown();
            say("ended");
            return 0;
        }
        const auto command = COMMANDS.find(name);
        if (command == COMMANDS.end()) {
            say("unknown " + line);
            continue;
        }
        (*actor.*command->second)(words);
    }
    ::_exit(0);
}
