#include "World.h"

#include "CheckedBackend.h"

#include <backend/CommBackend.h>
#include <kesa/PathPatterns.h>
#include <kesa/commadapter/createBackend.h>
#include <runtime/v02/config/KesaConfig.h>

#include <algorithm>
#include <set>

namespace kesa::sim {

using runtime::v02::KesaConfig;
using runtime::v02::KesaRuntimeImpl;
using serviceregistry::Query;

namespace {

constexpr unsigned PROCESSES = 3;
/// Static services: the first half is of process 0, the rest of process 1; "/d/*" are dynamic, anybody's.
const std::vector<std::string> STATIC_PATHS = {"/s/a", "/s/b", "/s/c", "/s/d"};
const std::vector<std::string> DYNAMIC_PATHS = {"/d/a", "/d/b", "/d/c"};
const std::vector<std::string> PATTERNS = {"**", "/s/*", "/d/**", "/s/{a,c}", "/nowhere/*", "/d/[a-"};

std::string ownerOf(const std::string& staticPath)
{
    return staticPath < "/s/c" ? "p0" : "p1";
}

bool isStatic(const std::string& path)
{
    return path.compare(0, 3, "/s/") == 0;
}

} // namespace

void Verdict::fail(const std::string& rule, const std::string& what)
{
    m_failures.push_back(rule + ": " + what);
}

std::vector<std::string> Verdict::failures() const
{
    return m_failures;
}

bool Verdict::failed() const
{
    return !m_failures.empty();
}

std::uint64_t World::SeededRandom::next()
{
    state += 0x9E3779B97F4A7C15ULL;
    std::uint64_t mixed = state;
    mixed = (mixed ^ (mixed >> 30U)) * 0xBF58476D1CE4E5B9ULL;
    mixed = (mixed ^ (mixed >> 27U)) * 0x94D049BB133111EBULL;
    return mixed ^ (mixed >> 31U);
}

/// Answers some requests at once, keeps others open, ends some later, drops some unfinished.
class World::Service final : public IKesaApi {
public:
    Service(Verdict& verdict, std::shared_ptr<Belief> registration, std::uint64_t seed)
        : m_verdict(verdict), m_registration(std::move(registration))
    {
        m_random.state = seed;
    }

    void* request(const Request&, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        std::uint64_t number = 0;
        std::uint64_t choice = 0;
        {
            const std::lock_guard<std::mutex> lock(m_verdict.mutex);
            checkAlive();
            number = ++m_handles;
            choice = m_random.below(4);
        }
        std::unique_ptr<IResponseHandler<Response>> taken = std::move(handler);
        if (choice == 0) {
            taken->onNext(Response(200, Payload::createFromString("one", "plain/text")));
            taken->onCompleted();
            return UNDEFINED_REQUEST_HANDLE;
        }
        if (choice == 1) {
            return UNDEFINED_REQUEST_HANDLE; // dropped unfinished
        }
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        m_open.emplace_back(number, std::move(taken));
        return reinterpret_cast<void*>(number);
    }

    void cancel(void* handle) override
    {
        std::unique_ptr<IResponseHandler<Response>> ended;
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        checkAlive();
        const auto number = reinterpret_cast<std::uint64_t>(handle);
        const auto found =
            std::find_if(m_open.begin(), m_open.end(), [number](const auto& open) { return open.first == number; });
        if (found != m_open.end()) {
            ended = std::move(found->second);
            m_open.erase(found);
        }
    }

    /// Sends a value, or ends a stream, from the test's thread.
    void answerOne()
    {
        std::unique_ptr<IResponseHandler<Response>> taken;
        std::uint64_t number = 0;
        std::uint64_t choice = 0;
        {
            const std::lock_guard<std::mutex> lock(m_verdict.mutex);
            if (m_open.empty()) {
                return;
            }
            const std::size_t index = m_random.below(m_open.size());
            number = m_open[index].first;
            taken = std::move(m_open[index].second);
            m_open.erase(m_open.begin() + static_cast<std::ptrdiff_t>(index));
            choice = m_random.below(4);
        }
        if (choice == 0) {
            taken->onCompleted();
        } else if (choice == 1) {
            taken->onError(Response::createErrorResponse(418, "no"));
        } else {
            taken->onNext(
                Response(200, Payload::createFromString(std::string(m_random.below(9000), 'x'), "plain/text")));
            const std::lock_guard<std::mutex> lock(m_verdict.mutex);
            m_open.emplace_back(number, std::move(taken));
        }
    }

    void dropAll()
    {
        std::vector<std::pair<std::uint64_t, std::unique_ptr<IResponseHandler<Response>>>> open;
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        open.swap(m_open);
    }

private:
    void checkAlive()
    {
        if (m_registration->destroyed) {
            m_verdict.fail("no call into a service that was withdrawn", m_registration->name);
        }
    }

    Verdict& m_verdict;
    std::shared_ptr<Belief> m_registration;
    SeededRandom m_random;
    std::uint64_t m_handles = 0;
    std::vector<std::pair<std::uint64_t, std::unique_ptr<IResponseHandler<Response>>>> m_open;
};

World::World(const Options& options) : m_options(options)
{
    m_random.state = options.seed * 2 + 1;
    m_kesaRandom.state = options.seed ^ 0xA5A5A5A5A5A5A5A5ULL;
    if (!options.threads) {
        m_scheduler = std::make_unique<comm::SimulatedScheduler>(options.seed);
        comm::Scheduler::install(m_scheduler.get());
        obr::Random::install(&m_kesaRandom);
    }
    m_verdict = std::make_unique<Verdict>();
    m_network = std::make_unique<commadapter::transport::MemoryNetwork>();
    commadapter::setBackendFactoryForTest(
        [this](const std::string& process, const std::string&) { return makeBackend(process); });
    for (unsigned index = 0; index < PROCESSES; ++index) {
        auto process = std::make_unique<Process>();
        process->name = "p" + std::to_string(index);
        m_processes.push_back(std::move(process));
    }
}

World::~World()
{
    m_processes.clear();
    commadapter::setBackendFactoryForTest({});
    m_network.reset();
    m_verdict.reset();
    if (m_scheduler) {
        obr::Random::install(nullptr);
        comm::Scheduler::install(nullptr);
    }
}

std::unique_ptr<commadapter::IBackend> World::makeBackend(const std::string& name)
{
    const std::uint64_t group = m_groups;
    auto backend = commadapter::makeCommBackend(
        name, commadapter::CommSettings{}, [this, group](std::shared_ptr<comm::Reactor> loop) {
            std::vector<std::unique_ptr<commadapter::transport::ITransport>> transports;
            transports.push_back(m_network->makeTransport(std::move(loop), group));
            return transports;
        });
    const auto& process = *std::find_if(m_processes.begin(), m_processes.end(),
                                        [&name](const auto& known) { return known->name == name; });
    process->books = std::make_shared<BackendBooks>();
    return std::make_unique<CheckedBackend>(*m_verdict, std::move(backend), process->books, [this] {
        const std::lock_guard<std::mutex> lock(m_verdict->mutex);
        return m_isRefusing && m_kesaRandom.below(3) == 0;
    });
}

std::vector<std::string> World::run()
{
    commadapter::transport::MemoryNetwork::Faults faults;
    if (draw(3) != 0) {
        faults.draw = [this](std::uint64_t bound) { return m_kesaRandom.below(bound); };
        faults.shortWritePercent = static_cast<unsigned>(draw(2) * draw(60));
        faults.shortReadPercent = static_cast<unsigned>(draw(2) * draw(60));
        faults.refusePercent = static_cast<unsigned>(draw(2) * draw(50));
        faults.longestDelay = m_options.threads ? 0 : static_cast<comm::TimeNs>(draw(2) * draw(20)) * comm::MILLISECOND;
    }
    if (!m_options.threads) {
        m_network->setFaults(faults);
    }
    m_isRefusing = draw(4) == 0;
    for (auto& process : m_processes) {
        start(*process);
    }
    for (unsigned step = 0; step < m_options.steps && !m_verdict->failed(); ++step) {
        act();
    }
    m_network->setFaults({});
    for (auto& process : m_processes) {
        if (!process->runtime) {
            start(*process);
        }
    }
    settle();
    disposeAll();
    for (auto& process : m_processes) {
        shutdown(*process);
    }
    return m_verdict->failures();
}

void World::act()
{
    Process& process = *pick(m_processes);
    const std::uint64_t choice = draw(100);
    if (!process.runtime) {
        if (choice < 50) {
            start(process);
        } else {
            advance();
        }
    } else if (choice < 3) {
        kill(process);
    } else if (choice < 5) {
        shutdown(process);
    } else if (choice < 18) {
        registerService(process);
    } else if (choice < 38) {
        subscribe(process);
    } else if (choice < 48) {
        dispose(process);
    } else if (choice < 50) {
        disposeAgain(process);
    } else if (choice < 62) {
        call(process);
    } else if (choice < 70) {
        answer(process);
    } else if (choice < 72) {
        m_network->cut(draw(m_groups + 1), draw(m_groups + 1));
    } else {
        advance();
    }
}

void World::advance()
{
    if (!m_scheduler) {
        return;
    }
    switch (draw(4)) {
    case 0:
        m_scheduler->runReady();
        break;
    case 1:
        m_scheduler->runFor(static_cast<comm::TimeNs>(draw(200)) * comm::MILLISECOND);
        break;
    default:
        for (std::uint64_t count = draw(40); count > 0; --count) {
            m_scheduler->step();
        }
    }
}

std::string World::document()
{
    std::string text = R"({"use_registry": false, "backends": ["comm"], "services": [)";
    for (const std::string& path : STATIC_PATHS) {
        text += (path == STATIC_PATHS.front() ? "" : ",");
        text += R"({"path": ")" + path + R"(", "type": "pex", "locators": ["ipc://)" + ownerOf(path) + R"("]})";
    }
    return text + "]}";
}

void World::start(Process& process)
{
    process.group = ++m_groups;
    if (m_scheduler) {
        m_scheduler->setGroup(process.group);
    }
    process.runtime = std::make_unique<KesaRuntimeImpl>(KesaConfig(process.name, document()));
    if (process.runtime->start()) {
        const std::lock_guard<std::mutex> lock(m_verdict->mutex);
        m_verdict->fail("a runtime starts", process.name);
    }
    if (m_scheduler) {
        m_scheduler->setGroup(0);
    }
}

/// The process is gone from one moment to the next: its loops never run again, its network ends.
void World::kill(Process& process)
{
    if (m_scheduler) {
        m_scheduler->killGroup(process.group);
        const std::lock_guard<std::mutex> lock(m_verdict->mutex);
        for (auto& subscription : process.subscriptions) {
            subscription.belief->processDead = true;
        }
        for (auto& registration : process.registrations) {
            registration.belief->processDead = true;
        }
        for (auto& belief : process.answers) {
            belief->processDead = true;
        }
    }
    m_network->kill(process.group);
    process.runtime.reset();
    checkEnds(process);
    process.subscriptions.clear();
    process.registrations.clear();
    process.answers.clear();
    process.services.clear();
}

void World::shutdown(Process& process)
{
    process.runtime.reset();
    checkEnds(process);
    process.subscriptions.clear();
    process.registrations.clear();
    process.answers.clear();
    process.services.clear();
}

/// Whatever was open when a runtime went has been destroyed by now, and every request has ended.
void World::checkEnds(Process& process)
{
    for (auto& service : process.services) {
        service->dropAll();
    }
    const std::lock_guard<std::mutex> lock(m_verdict->mutex);
    const auto check = [this](const Belief& belief) {
        if (!belief.destroyed && !belief.processDead) {
            m_verdict->fail("every handler is destroyed by shutdown", belief.name);
        }
    };
    for (const auto& subscription : process.subscriptions) {
        check(*subscription.belief);
    }
    for (const auto& registration : process.registrations) {
        check(*registration.belief);
    }
    for (const auto& belief : process.answers) {
        check(*belief);
        if (!belief->terminal && !belief->processDead) {
            m_verdict->fail("every request ends", belief->name);
        }
    }
}

std::string World::somePath()
{
    const auto& paths = draw(2) == 0 ? STATIC_PATHS : DYNAMIC_PATHS;
    return paths[draw(paths.size())];
}

void World::registerService(Process& process)
{
    auto belief = std::make_shared<Belief>();
    const std::string path = somePath();
    belief->name = process.name + " registration #" + std::to_string(++m_names) + " of " + path;
    auto service = std::make_shared<Service>(*m_verdict, belief, m_random.next());
    process.services.push_back(service);
    const auto type = draw(12) == 0 ? ServiceDef::TypeEnum::lomo : ServiceDef::TypeEnum::pex;
    auto handler = std::make_unique<RegistrationObserver>(*m_verdict, belief);
    Disposable disposable =
        process.runtime->registerService(path, service, type, {"1.0.0"}, GenericObject{}, std::move(handler));
    process.registrations.push_back({path, disposable, belief});
}

void World::subscribe(Process& process)
{
    Subscription subscription{static_cast<Stream>(draw(5)), somePath(), Disposable(), std::make_shared<Belief>(),
                              false};
    Belief& belief = *subscription.belief;
    auto& runtime = *process.runtime;
    const auto named = [&](const char* kind) {
        belief.name = process.name + " " + kind + " #" + std::to_string(++m_names) + " of " + subscription.target;
    };
    switch (subscription.kind) {
    case Stream::eTRACK:
        named("tracking");
        subscription.disposable = runtime.trackService(
            subscription.target, std::make_unique<TrackingObserver>(*m_verdict, subscription.belief));
        break;
    case Stream::eQUERY:
        subscription.target = PATTERNS[draw(PATTERNS.size())];
        named("query");
        subscription.disposable = runtime.trackServices(
            Query(subscription.target), std::make_unique<TrackingObserver>(*m_verdict, subscription.belief));
        break;
    case Stream::eRESOLVE: {
        const std::string owner =
            isStatic(subscription.target) ? ownerOf(subscription.target) : "p" + std::to_string(draw(PROCESSES));
        subscription.target = (draw(5) == 0 ? "tcp://" : "ipc://") + owner + subscription.target;
        named("resolving");
        subscription.disposable = runtime.resolveService(
            url(subscription.target), std::make_unique<ResolvingObserver>(*m_verdict, subscription.belief));
        break;
    }
    case Stream::eTRACK_RESOLVE:
        named("track and resolve");
        subscription.disposable = runtime.trackAndResolveService(
            subscription.target, std::make_unique<TrackAndResolveObserver>(*m_verdict, subscription.belief));
        break;
    case Stream::eQUERY_RESOLVE:
        subscription.target = PATTERNS[draw(PATTERNS.size())];
        named("track and resolve by query");
        subscription.disposable = runtime.trackAndResolveServices(
            Query(subscription.target),
            std::make_unique<TrackAndResolveQueryObserver>(*m_verdict, subscription.belief));
        break;
    }
    process.subscriptions.push_back(std::move(subscription));
}

void World::dispose(Process& process)
{
    const std::size_t total = process.subscriptions.size() + process.registrations.size();
    if (total == 0) {
        return;
    }
    const std::size_t index = draw(total);
    if (index < process.subscriptions.size()) {
        process.subscriptions[index].disposed = true;
        process.subscriptions[index].disposable.dispose();
    } else {
        process.registrations[index - process.subscriptions.size()].disposable.dispose();
    }
}

void World::disposeAgain(Process& process)
{
    for (auto& subscription : process.subscriptions) {
        if (subscription.disposed) {
            subscription.disposable.dispose();
        }
    }
}

void World::call(Process& process)
{
    if (process.subscriptions.empty()) {
        return;
    }
    Client client;
    {
        const std::lock_guard<std::mutex> lock(m_verdict->mutex);
        Belief& belief = *pick(process.subscriptions).belief;
        client = belief.client;
        if (!belief.clients.empty()) {
            client = belief.clients.begin()->second;
        }
    }
    if (!client) {
        return;
    }
    auto belief = std::make_shared<Belief>();
    belief->name = process.name + " request #" + std::to_string(++m_names);
    process.answers.push_back(belief);
    std::unique_ptr<IResponseHandler<Response>> handler = std::make_unique<AnswerObserver>(*m_verdict, belief);
    void* const handle = client->request(Request("retrieve", "/"), std::move(handler));
    if (handle != IKesaApi::UNDEFINED_REQUEST_HANDLE && draw(4) == 0) {
        client->cancel(handle);
        const std::lock_guard<std::mutex> lock(m_verdict->mutex);
        if (m_scheduler && !belief->destroyed) {
            m_verdict->fail("a cancelled request's handler is destroyed", belief->name);
        }
        belief->terminal = true;
    }
}

void World::answer(Process& process)
{
    if (!process.services.empty()) {
        pick(process.services)->answerOne();
    }
}

/// Whether a registration of that path is in force in the process.
bool World::registered(const Process& process, const std::string& path) const
{
    return std::any_of(
        process.registrations.begin(), process.registrations.end(), [&path](const Registration& registration) {
            return registration.path == path && registration.belief->accepted && !registration.belief->destroyed;
        });
}

bool World::provides(const std::string& name, const std::string& path) const
{
    return std::any_of(m_processes.begin(), m_processes.end(), [&](const auto& process) {
        return process->name == name && process->runtime && registered(*process, path);
    });
}

void World::settle()
{
    std::vector<std::string> left;
    if (m_scheduler) {
        m_scheduler->runFor(30 * comm::SECOND);
        const std::lock_guard<std::mutex> lock(m_verdict->mutex);
        left = differences();
    } else {
        // The truth comes by itself; a minute without it is reported.
        std::unique_lock<std::mutex> lock(m_verdict->mutex);
        comm::waitFor(
            m_verdict->changed, lock, [this] { return differences().empty(); }, comm::now() + 60 * comm::SECOND);
        left = differences();
    }
    const std::lock_guard<std::mutex> lock(m_verdict->mutex);
    for (const std::string& difference : left) {
        m_verdict->fail("everybody believes what is true", difference);
    }
}

/// Whoever has disposed everything holds nothing any more: no proxy, no locator, no connection.
void World::disposeAll()
{
    for (auto& process : m_processes) {
        for (auto& subscription : process->subscriptions) {
            subscription.disposed = true;
            subscription.disposable.dispose();
        }
        for (auto& registration : process->registrations) {
            registration.disposable.dispose();
        }
    }
    const auto isAllTakenBack = [this] {
        return std::all_of(m_processes.begin(), m_processes.end(), [](const auto& process) {
            return process->books->clients.empty() && process->books->provided.empty();
        });
    };
    if (m_scheduler) {
        m_scheduler->runFor(30 * comm::SECOND);
    }
    std::unique_lock<std::mutex> lock(m_verdict->mutex);
    if (!m_scheduler) {
        comm::waitFor(m_verdict->changed, lock, isAllTakenBack, comm::now() + 60 * comm::SECOND);
    }
    for (const auto& process : m_processes) {
        if (!process->books->clients.empty()) {
            m_verdict->fail("nothing is left when all is disposed", process->name + ": client objects");
        }
        if (!process->books->provided.empty()) {
            m_verdict->fail("nothing is left when all is disposed",
                            process->name + ": " + *process->books->provided.begin());
        }
    }
    if (m_scheduler && m_network->openStreams() > 0) {
        m_verdict->fail("nothing is left when all is disposed", "connections");
    }
}

std::vector<std::string> World::differences() const
{
    std::vector<std::string> found;
    for (const auto& process : m_processes) {
        for (const auto& subscription : process->subscriptions) {
            std::string difference = differenceOf(*process, subscription);
            if (!difference.empty()) {
                found.push_back(subscription.belief->name + ": " + difference);
            }
        }
    }
    return found;
}

std::string World::differenceOf(const Process& process, const Subscription& subscription) const
{
    const Belief& belief = *subscription.belief;
    const bool malformed = subscription.target == PATTERNS.back();
    const bool unreachable = subscription.target.compare(0, 6, "tcp://") == 0;
    if (belief.terminal) {
        const unsigned short expected = malformed ? 400 : unreachable || m_isRefusing ? 404 : 0;
        return belief.error == expected ? "" : "ended with " + std::to_string(belief.error);
    }
    if (subscription.disposed) {
        return belief.destroyed ? "" : "disposed and still there";
    }
    if (belief.destroyed) {
        return "was ended by nobody";
    }
    if (malformed || unreachable) {
        return "has not ended";
    }
    std::set<std::string> expected = expectedOf(process, subscription);
    for (const auto& [path, present] : belief.present) {
        if (present != (expected.erase(path) > 0)) {
            return path + (present ? " is shown and is gone" : " is there and is not shown");
        }
    }
    return expected.empty() ? "" : *expected.begin() + " is there and was never shown";
}

/// What the observer has to believe: the paths that are present to it ("" for a stream about one client object).
std::set<std::string> World::expectedOf(const Process& process, const Subscription& subscription) const
{
    std::set<std::string> expected;
    const std::string& target = subscription.target;
    switch (subscription.kind) {
    case Stream::eTRACK:
        if (isStatic(target) && ownerOf(target) != process.name ? true : registered(process, target)) {
            expected.insert(target);
        }
        break;
    case Stream::eRESOLVE:
        if (provides(target.substr(6, 2), target.substr(8))) {
            expected.insert("");
        }
        break;
    case Stream::eTRACK_RESOLVE:
        if (provides(isStatic(target) ? ownerOf(target) : process.name, target)) {
            expected.insert("");
        }
        break;
    case Stream::eQUERY:
    case Stream::eQUERY_RESOLVE: {
        const auto patterns = PathPatterns::createFromGlob(target);
        for (const auto* paths : {&STATIC_PATHS, &DYNAMIC_PATHS}) {
            for (const std::string& path : *paths) {
                if (patterns && patterns->match(path) && registered(process, path)) {
                    expected.insert(path);
                }
            }
        }
        break;
    }
    }
    return expected;
}

} // namespace kesa::sim
