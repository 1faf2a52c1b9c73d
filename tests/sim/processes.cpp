// Processes come, go, and stand still.

#include "World.h"

#include <backend/BackendFactory.h>
#include <obr/GlobalErrorHandler.h>
#include <runtime/v02/config/KesaConfig.h>

#include <algorithm>
#include <cstdio>

namespace kesa::sim {

using obr::GlobalErrorHandler;
using runtime::v02::KesaConfig;
using runtime::v02::KesaRuntimeImpl;

std::string ownerOf(const std::string& staticPath)
{
    return staticPath < "/s/c" ? "p0" : "p1";
}

bool isStatic(const std::string& path)
{
    return path.compare(0, 3, "/s/") == 0;
}

World::World(const Options& options) : m_options(options)
{
    m_random.state = options.seed ^ 0xA5A5A5A5A5A5A5A5ULL;
    if (!options.threads) {
        m_scheduler = std::make_unique<comm::SimulatedScheduler>(options.seed);
        comm::Scheduler::install(m_scheduler.get());
        obr::Random::install(&m_random);
    }
    m_verdict = std::make_unique<Verdict>();
    GlobalErrorHandler::setHandler([this](const GlobalErrorHandler::Report& report) {
        const std::string what = std::string(report.file) + ":" + std::to_string(report.line) + " " +
                                 (report.message != nullptr ? report.message : "");
        m_verdict->fail("no process ends itself", what);
        if (report.condition == nullptr) { // `doAbort` does not come back
            std::printf("seed %llu: aborted at %s\n", static_cast<unsigned long long>(m_options.seed), what.c_str());
            std::fflush(stdout);
        }
    });
    m_network = std::make_unique<commadapter::transport::MemoryNetwork>();
    commadapter::setBackendFactory(
        [this](const std::string& process, const std::string&) { return makeBackend(process); });
}

World::~World()
{
    m_processes.clear();
    commadapter::setBackendFactory({});
    m_network.reset();
    GlobalErrorHandler::setHandler({});
    m_verdict.reset();
    if (m_scheduler) {
        obr::Random::install(nullptr);
        comm::Scheduler::install(nullptr);
    }
}

Process& World::add(const std::string& name)
{
    auto process = std::make_unique<Process>();
    process->name = name;
    process->isRegistry = name == REGISTRY_PROCESS;
    m_processes.push_back(std::move(process));
    return *m_processes.back();
}

Process& World::registry()
{
    return **std::find_if(m_processes.begin(), m_processes.end(), [](const auto& each) { return each->isRegistry; });
}

std::unique_ptr<commadapter::IBackend> World::makeBackend(const std::string& name)
{
    const std::uint64_t group = m_groups;
    const auto& process = *std::find_if(m_processes.begin(), m_processes.end(),
                                        [&name](const auto& known) { return known->name == name; });
    const auto settings = process->settings.value_or(process->isRegistry ? m_registrySettings : m_settings);
    auto backend = commadapter::makeCommBackend(name, settings, [this, group](std::shared_ptr<comm::Reactor> loop) {
        std::vector<std::unique_ptr<commadapter::transport::ITransport>> transports;
        transports.push_back(m_network->makeTransport(std::move(loop), group));
        return transports;
    });
    process->books = std::make_shared<BackendBooks>();
    return std::make_unique<CheckedBackend>(*m_verdict, std::move(backend), process->books, [this](const url& locator) {
        const std::lock_guard<std::mutex> lock(m_verdict->mutex);
        return m_isRefusing && locator.path() != REGISTRY_PATH && m_random.below(3) == 0;
    });
}

std::string World::document() const
{
    if (m_options.registry) {
        return R"({"use_registry": true, "backends": ["comm"], "service_registry_locators": ["ipc://)" +
               std::string(REGISTRY_PROCESS) + REGISTRY_PATH + R"("]})";
    }
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
    if (!process.isRegistry) {
        const std::lock_guard<std::mutex> lock(m_verdict->mutex);
        m_calls.bound(process.group, m_mostUnderWay);
    }
    if (m_scheduler) {
        m_scheduler->setGroup(process.group);
    }
    process.runtime = std::make_unique<KesaRuntimeImpl>(
        KesaConfig(process.name, process.document.empty() ? document() : process.document));
    if (process.runtime->start()) {
        m_verdict->fail("a runtime starts", process.name);
    }
    if (process.isRegistry) {
        startRegistry(process);
    }
    if (m_scheduler) {
        m_scheduler->setGroup(0);
    }
}

void World::startPosing(Process& process, const Process& other)
{
    m_network->repeatInstance(m_groups + 1, other.group);
    start(process);
}

void World::addStranger(std::int64_t uid, const std::function<void(std::uint64_t group)>& make)
{
    const std::uint64_t group = ++m_groups;
    m_strangers.insert(group);
    m_network->setUser(group, uid);
    m_calls.setStranger(std::make_shared<Call>(*m_verdict, m_calls, Wish(), "", std::make_shared<Belief>()));
    m_scheduler->setGroup(group);
    make(group);
    m_scheduler->setGroup(0);
}

void World::killStranger()
{
    m_calls.find("")->belief()->processDead = true;
    m_scheduler->killGroup(*m_strangers.rbegin());
    m_network->kill(*m_strangers.rbegin());
}

void World::startRegistry(Process& process)
{
    process.list = std::make_shared<Belief>();
    process.list->name = "the registry's list #" + std::to_string(++m_names);
    process.host = std::make_unique<registry::RegistryHost>(
        *process.runtime, [] {},
        [this](const Response& error) {
            m_verdict->fail("the registry is registered", Response::getErrorMessageWithCode(error));
        });
    process.host->registry().queryRegistry(observer<std::vector<RegistryUpdate>>(process.list),
                                           serviceregistry::Query("**"));
}

void World::kill(Process& process)
{
    if (!m_scheduler && process.isRegistry) {
        end(process); // its loops cannot be taken from it, and it insists on a network
        return;
    }
    resume(process);
    if (m_scheduler) {
        m_scheduler->killGroup(process.group);
    }
    std::unique_lock<std::mutex> lock(m_verdict->mutex);
    for (auto& registration : process.registrations) {
        registration.belief->processDead = m_scheduler != nullptr;
        if (registration.belief->ended.number == 0) {
            registration.belief->ended = m_verdict->now();
        }
    }
    for (auto& subscription : process.subscriptions) {
        subscription.belief->processDead = m_scheduler != nullptr;
    }
    for (auto& belief : process.answers) {
        belief->processDead = m_scheduler != nullptr;
    }
    lock.unlock();
    m_network->kill(process.group);
    letGo(process, m_scheduler != nullptr);
}

void World::end(Process& process)
{
    if (process.host) { // everything else goes before the registry
        for (auto& registration : process.registrations) {
            registration.disposable.dispose();
        }
        process.host->stop();
    }
    letGo(process, false);
}

void World::letGo(Process& process, bool isKilled)
{
    process.runtime.reset();
    process.host.reset();
    if (process.actor && !isKilled && process.actor->livingHandlers() != 0) {
        m_verdict->fail("every handler is destroyed by shutdown", process.name);
    }
    process.actor.reset();
    checkEnds(process);
    process.list.reset();
    process.subscriptions.clear();
    process.registrations.clear();
    process.answers.clear();
    process.services.clear();
}

void World::stop(Process& process)
{
    if (m_scheduler) {
        process.isStopped = true;
        m_calls.standsStill(process.group, comm::NEVER);
        m_stoppedAt[process.group] = comm::now();
        m_scheduler->pauseGroup(process.group);
    }
}

void World::resume(Process& process)
{
    if (process.isStopped) {
        process.isStopped = false;
        m_calls.standsStill(process.group, std::max(comm::now(), m_ioBehindUntil[process.group]));
        m_timeStopped += comm::now() - m_stoppedAt[process.group];
        m_scheduler->continueGroup(process.group);
    }
}

void World::leaveBehind(Process& process, const std::string& loop, comm::TimeNs time)
{
    if (m_scheduler) {
        m_timeStopped += time;
        m_scheduler->leaveBehind(process.group, loop, comm::now() + time);
        if (loop == IO_LOOP) {
            m_ioBehindUntil[process.group] = comm::now() + time;
            m_calls.standsStill(process.group, comm::now() + time);
        }
    }
}

void World::endAll()
{
    for (auto& process : m_processes) {
        if (process->runtime) {
            end(*process);
        }
    }
}

} // namespace kesa::sim
