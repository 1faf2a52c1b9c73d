#include "Actor.h"

#include <kesa/headers.h>
#include <kesa/mimetypes.h>
#include <kesa/reasonOf.h>

#include <sstream>
#include <utility>

namespace kesa::actor {

using runtime::v02::ResolveResult;
using serviceregistry::Query;
using serviceregistry::ServiceDef;
using Update = ResourceUpdate<ServiceDef>;
using Resolved = optional<ResolveResult<ClientApi>>;

namespace {

std::string word(std::istream& words)
{
    std::string next;
    words >> next;
    return next;
}

bool isPattern(const std::string& what)
{
    return what.find_first_of("*?[{") != std::string::npos;
}

/// Sets what follows as KEY=VALUE ..., "true" as what it says; false when nothing does.
bool setPairs(std::istream& words, GenericObject& object)
{
    bool isAny = false;
    for (std::string pair; words >> pair; isAny = true) {
        const std::size_t equals = pair.find('=');
        const std::string value = pair.substr(equals + 1);
        value == "true" ? object.set(pair.substr(0, equals), true) : object.set(pair.substr(0, equals), value);
    }
    return isAny;
}

} // namespace

Actor::Actor(runtime::v02::IKesaRuntime& runtime, const Say& say)
    : m_runtime(runtime), m_say(say), m_streams(say), m_clients(m_streams, say), m_beliefs(say)
{}

void Actor::failed(const std::string& what, const Response& error)
{
    m_say("failed " + what + ' ' + reasonOf(error));
}

void Actor::provide(Words& words)
{
    const std::string path = word(words);
    const std::string generation = word(words);
    GenericObject metainfo{{"generation", generation}};
    setPairs(words, metainfo);
    m_registrations[path].push_back(m_runtime.registerService(
        path, m_service.api(), ServiceDef::TypeEnum::pex, {"1.0.0"}, metainfo,
        m_streams.make<ServiceDef>(
            "registration of " + path,
            [this](const ServiceDef& service) {
                m_say("provided " + service.path.toString() + ' ' + service.locators.front().toString());
            },
            [this, path](const Response& error) { m_say("refused " + path + ' ' + reasonOf(error)); })));
}

/// Before anything is provided.
void Actor::allow(Words& words)
{
    std::string rules;
    std::getline(words >> std::ws, rules);
    m_service.allow(rules);
    m_say("allowed");
}

void Actor::withdraw(Words& words)
{
    for (Disposable& registration : std::exchange(m_registrations[word(words)], {})) {
        registration.dispose();
    }
}

void Actor::resolve(Words& words)
{
    const std::string what = word(words);
    const int number = m_beliefs.follow('=' + what);
    const auto turned = [this, what, number](const ClientApi& client) {
        if (client) {
            m_clients.connected(what, client);
            m_beliefs.added('=' + what, number, what, {});
        } else {
            m_clients.lost(what);
            m_beliefs.removed('=' + what, number, what);
        }
    };
    const auto end = [this, what](const Response& error) { failed(what, error); };
    if (isPattern(what)) {
        const auto next = [this, what, number](const ResolveResult<optional<ClientApi>>& result) {
            const std::string path = result.serviceDef.path.toString();
            result.api ? m_beliefs.added('=' + what, number, path, {}) : m_beliefs.removed('=' + what, number, path);
        };
        m_resolved[what] = m_runtime.trackAndResolveServices(
            Query(what), m_streams.make<ResolveResult<optional<ClientApi>>>("=" + what, next, end));
    } else if (what.front() == '/') {
        const auto next = [turned](const Resolved& resolved) { turned(resolved ? resolved->api : nullptr); };
        m_resolved[what] = m_runtime.trackAndResolveService(what, m_streams.make<Resolved>("=" + what, next, end));
    } else {
        const auto next = [turned](const optional<ClientApi>& client) { turned(client.value_or(nullptr)); };
        m_resolved[what] =
            m_runtime.resolveService(url(what), m_streams.make<optional<ClientApi>>("=" + what, next, end));
    }
}

void Actor::drop(Words& words)
{
    const std::string what = word(words);
    m_resolved[what].dispose();
    m_beliefs.forget('=' + what);
    m_clients.drop(what);
}

void Actor::follow(Words& words)
{
    m_clients.followAlways(word(words));
}

void Actor::call(Words& words)
{
    const std::string stream = word(words);
    const std::string what = word(words);
    const std::string resource = word(words);
    const std::string semantic = word(words);
    const std::string milliseconds = word(words);
    const std::string command = word(words);
    const ClientApi client = m_clients.find(what);
    if (!client) {
        m_say("unconnected " + what);
        return;
    }
    Request request(command.empty() ? "retrieve" : command, resource,
                    Payload::createFromString("echo", mimetypes::TEXT));
    if (!semantic.empty() && semantic != "-") {
        headers::appendResponseSemantic(request, semantic);
    }
    if (!milliseconds.empty() && milliseconds != "-") {
        request.setHeader(headers::TIMEOUT, std::stoull(milliseconds));
    }
    m_say("issued " + stream);
    m_issued[stream] = {client, client->request(request, printer(m_streams, m_say, stream))};
}

void Actor::cancel(Words& words)
{
    const std::string stream = word(words);
    const Issued& issued = m_issued.at(stream);
    issued.client->cancel(issued.handle);
    m_say("cancelled " + stream);
}

void Actor::feed(Words& words)
{
    const auto [taken, refused] = m_service.feed(std::stoul(word(words)));
    m_say("fed " + std::to_string(taken) + ' ' + std::to_string(refused));
}

void Actor::use(Words& words)
{
    const std::string path = word(words);
    m_used[path] = std::make_unique<Used>(m_runtime, path, m_streams, m_say);
}

void Actor::reach(Words& words)
{
    const std::string path = word(words);
    m_used[path]->reach(std::stoull(word(words)));
}

void Actor::track(Words& words)
{
    const std::string what = word(words);
    const auto next = [this, what, number = m_beliefs.follow(what)](const Update& update) {
        const std::string path = update.element.path.toString();
        if (update.type == ResourceUpdateType::eREMOVED) {
            m_beliefs.removed(what, number, path);
            return;
        }
        std::string generation;
        static_cast<void>(update.element.metainfo && (*update.element.metainfo)["generation"].get(generation));
        m_beliefs.added(what, number, path, generation.empty() ? "-" : generation);
    };
    auto handler = m_streams.make<Update>(what, next, [this, what](const Response& error) { failed(what, error); });
    if (!isPattern(what)) {
        m_tracked[what] = m_runtime.trackService(what, std::move(handler));
        return;
    }
    Query query(what);
    GenericObject metadata;
    if (setPairs(words, metadata)) {
        query.metadata = metadata;
    }
    m_tracked[what] = m_runtime.trackServices(query, std::move(handler));
}

void Actor::untrack(Words& words)
{
    const std::string what = word(words);
    m_beliefs.forget(what);
    m_tracked[what].dispose();
}

void Actor::expect(Words& words, bool isAll)
{
    const std::string id = word(words);
    std::set<std::string> facts;
    for (std::string fact; std::getline(words >> std::ws, fact, ';');) {
        facts.insert(fact);
    }
    m_beliefs.expect(id, std::move(facts), isAll);
}

/// Makes the registry tell much to all who track everything.
void Actor::churn(Words& words)
{
    const int count = std::stoi(word(words));
    const std::string filler(std::stoul(word(words)), '.');
    for (int i = 0; i < count; ++i) {
        auto handler = m_streams.make<ServiceDef>(
            "/churn", [](const ServiceDef&) {},
            [this](const Response& error) { m_say("refused /churn " + reasonOf(error)); });
        m_runtime
            .registerService("/churn", m_service.api(), ServiceDef::TypeEnum::pex, {"1.0.0"},
                             GenericObject{{"filler", filler}}, std::move(handler))
            .dispose();
    }
    m_say("churned");
}

void Actor::disposeAll()
{
    m_used.clear();
    for (auto& [path, registrations] : m_registrations) {
        for (Disposable& registration : registrations) {
            registration.dispose();
        }
    }
    for (auto* const held : {&m_resolved, &m_tracked}) {
        for (auto& [what, disposable] : *held) {
            disposable.dispose();
        }
    }
    m_issued.clear();
    m_clients.dropAll();
    m_say("disposed");
}

struct Actor::Commands {
    static const std::map<std::string, void (*)(Actor&, Words&)> ALL;
};

const std::map<std::string, void (*)(Actor&, std::istream&)> Actor::Commands::ALL = {
    // PATH [GENERATION [KEY=VALUE...]]: provided PATH LOCATOR; refused PATH WHY, also later
    {"provide", [](Actor& actor, Words& words) { actor.provide(words); }},
    {"withdraw", [](Actor& actor, Words& words) { actor.withdraw(words); }}, // PATH
    {"allow", [](Actor& actor, Words& words) { actor.allow(words); }},       // RULES: allowed
    // LOCATOR or PATH: connected and lost in turn, or failed WHAT WHY; PATTERN: only what is believed
    {"resolve", [](Actor& actor, Words& words) { actor.resolve(words); }},
    {"drop", [](Actor& actor, Words& words) { actor.drop(words); }}, // what was resolved
    // what was resolved: issued, value and error of WHAT#1, WHAT#2 ...
    {"follow", [](Actor& actor, Words& words) { actor.follow(words); }},
    // STREAM WHAT RESOURCE [SEMANTIC or - [TIME LIMIT IN MS or - [COMMAND]]]: issued, value, error, completed
    {"call", [](Actor& actor, Words& words) { actor.call(words); }},
    {"cancel", [](Actor& actor, Words& words) { actor.cancel(words); }}, // STREAM
    {"feed", [](Actor& actor, Words& words) { actor.feed(words); }},     // BYTES: fed TAKEN REFUSED
    // PATH: there and gone in turn, began for each stream; gap PATH BEFORE VALUE; unfollowed PATH WHY
    {"use", [](Actor& actor, Words& words) { actor.use(words); }},
    {"reach", [](Actor& actor, Words& words) { actor.reach(words); }}, // PATH VALUE: reached PATH VALUE
    {"track", [](Actor& actor, Words& words) { actor.track(words); }}, // PATH, or PATTERN [KEY=VALUE...]
    {"untrack", [](Actor& actor, Words& words) { actor.untrack(words); }},
    // ID FACT;FACT...: true ID, once it believes just that; "-some": once it believes that, too
    {"expect", [](Actor& actor, Words& words) { actor.expect(words, true); }},
    {"expect-some", [](Actor& actor, Words& words) { actor.expect(words, false); }},
    {"narrate", [](Actor& actor, Words&) { actor.m_beliefs.narrate(); }}, // from now on: shown FACT, gone FACT
    {"beliefs", [](Actor& actor, Words&) { actor.m_say("beliefs " + actor.m_beliefs.json()); }},
    // COUNT BYTES: churned; /churn came and went so often, with as many bytes
    {"churn", [](Actor& actor, Words& words) { actor.churn(words); }},
    {"say", [](Actor& actor, Words& words) { actor.m_say(word(words)); }}, // EVENT: EVENT
    {"dispose-all", [](Actor& actor, Words&) { actor.disposeAll(); }},     // disposed
};

bool Actor::knows(const std::string& command)
{
    return Commands::ALL.count(command) != 0;
}

bool Actor::obey(const std::string& line)
{
    std::istringstream words(line);
    const auto command = Commands::ALL.find(word(words));
    if (command == Commands::ALL.end()) {
        return false;
    }
    command->second(*this, words);
    return true;
}

} // namespace kesa::actor
