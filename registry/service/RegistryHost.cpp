#include "policy/readPolicy.h"
#include "service/RegistryImpl.h"
#include "service/channel.h"

#include <comm/Clock.h>
#include <kesa/Disposable.h>
#include <kesa/core/response_handlers.h>
#include <kesa/registry/RegistryHost.h>
#include <kesa/runtime/v02/KesaConfigAccessor.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/registerServiceRegistryPex.h>
#include <obr/ErrorStorage.h>
#include <tracing/Sink.h>
#include <util/config/FrameworkProvider.h>

#include <unistd.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kesa::registry {

using runtime::v02::IRuntimeRegistry;
using runtime::v02::KesaConfigAccessor;
using runtime::v02::KesaRuntime;
using serviceregistry::IServiceRegistry;
using serviceregistry::ServiceRegistryPexService;
using ServiceUpdate = ResourceUpdate<ServiceDef>;

namespace {

/// What hears of the runtime's own services, for one host after the other: a runtime has a single query for it, which
/// is never disposed, as that would be traced as an error here. It goes with the runtime.
class Follower {
public:
    using Mirror = std::function<void(const ServiceUpdate&)>;

    explicit Follower(Mirror mirror) : m_mirror(std::move(mirror)) {}

    /// From its own "/registry" on; what comes before was its predecessor's.
    void takeOver(Mirror mirror)
    {
        const std::lock_guard lock(m_mutex);
        m_next = std::move(mirror);
        m_silence.reset();
    }
    /// The runtime's end frees a proxy that this process does not have, and calls that an error.
    void beQuiet()
    {
        const std::lock_guard lock(m_mutex);
        m_silence.emplace("KESA_RUNTIME_BACKENDS");
    }
    /// On the updater.
    void told(const ServiceUpdate& update)
    {
        std::unique_lock lock(m_mutex);
        if (m_next && update.type == ResourceUpdateType::eADDED &&
            update.element.path.toString() == serviceregistry::ServiceRegistryPex::SERVICE_PATH) {
            m_mirror = std::exchange(m_next, nullptr);
        }
        const Mirror mirror = m_mirror;
        lock.unlock();
        mirror(update);
    }

private:
    std::mutex m_mutex; ///< the updater is told while the next host takes over, or this one goes
    // With the mutex held.
    Mirror m_mirror;
    Mirror m_next;
    std::optional<tracing::Silence> m_silence;
};

/// Those that begin when the registration of one that was stopped has been answered, and with it withdrawn or refused.
struct Successors {
    std::vector<std::function<void()>> begins; ///< with the mutex of `Predecessors` held
};

/// What the hosts of one runtime leave to the next. What belongs to a runtime that has ended is without effect.
class Predecessors {
public:
    static Predecessors& of(const IRuntimeRegistry& runtime)
    {
        static std::mutex mutex; // hosts may be made in several threads at once
        static auto* const all = new std::map<const IRuntimeRegistry*, Predecessors>(); // runtimes may outlive statics
        const std::lock_guard lock(mutex);
        return (*all)[&runtime];
    }

    /// True when a host has to wait: then `begin` is called, on a loop of the runtime.
    bool await(std::function<void()> begin)
    {
        const std::lock_guard lock(m_mutex);
        const auto ending = m_ending.lock();
        if (ending) {
            ending->begins.push_back(std::move(begin));
        }
        return ending != nullptr;
    }
    /// One was stopped whose registration has not been answered.
    void setEnding(const std::weak_ptr<Successors>& successors)
    {
        const std::lock_guard lock(m_mutex);
        m_ending = successors;
    }
    /// It has been. Answers who begins now.
    std::vector<std::function<void()>> setEnded(Successors& successors)
    {
        const std::lock_guard lock(m_mutex);
        if (m_ending.lock().get() == &successors) {
            m_ending.reset();
        }
        return std::exchange(successors.begins, {});
    }
    /// Its handler keeps it. Null when there is none to take over; then `made` is the one.
    std::shared_ptr<Follower> findFollower(const std::shared_ptr<Follower>& made)
    {
        const std::lock_guard lock(m_mutex);
        auto found = m_follower.lock();
        if (!found) {
            m_follower = made;
        }
        return found;
    }

private:
    std::mutex m_mutex; ///< hosts are made and stopped in any thread, and begin on the executor
    // With the mutex held.
    std::weak_ptr<Successors> m_ending; ///< owned by the handler of the registration
    std::weak_ptr<Follower> m_follower;
};

/// Of a process whose configuration says that the registry is elsewhere, or that did not get its name.
std::string whyNotHere(const KesaConfigAccessor& config)
{
    const std::string process = config.getOwnProcessName();
    std::string partition;
    if (util::config::FrameworkProvider::getNodenameForProcess(process, partition)) {
        obr::ErrorStorage::ack(); // the start has told
    }
    config.getNodeDomainMapping(partition);
    std::string locators;
    for (const url& locator : config.getRegistryLocatorsByPartition(partition, false).value_or(std::vector<url>())) {
        locators.append(locators.empty() ? "" : ", ").append(locator.toString());
    }
    const std::string here = "this process, \"" + process + "\", does not host the registry: ";
    return config.useRemoteRegistry() ? here + "of \"service_registry_locators\" for its partition, \"" + partition +
                                            "\", which are " + (locators.empty() ? "none" : locators) +
                                            ", one has to be of its own name, and no other process may have that name"
                                      : here + "its configuration asks for no registry (\"use_registry\")";
}

/// Of the process's document.
runtime::v02::RegistryLimits limitsOf(const IRuntimeRegistry& runtime)
{
    const bool isRunning = KesaRuntime::isRunning() && KesaRuntime::getInstance() == &runtime;
    return isRunning ? KesaRuntime::getInstance()->getConfigAccessor().getRegistryLimits()
                     : runtime::v02::RegistryLimits();
}

} // namespace

/// Follows what the own runtime provides, and holds it in the registry as one more process would, save that it is
/// always there and never refused.
class RegistryHost::Impl : public std::enable_shared_from_this<RegistryHost::Impl> {
public:
    Impl(IRuntimeRegistry& runtime, std::function<void()> ready, std::function<void(const Response&)> failed)
        : m_runtime(runtime), m_ready(std::move(ready)), m_failed(std::move(failed)),
          m_registry(new Registry(limitsOf(runtime))), m_core(m_registry->m_impl),
          m_service(std::make_shared<ServiceRegistryPexService>(std::unique_ptr<IServiceRegistry>(m_registry)))
    {}

    void start()
    {
        if (KesaRuntime::isRunning() && KesaRuntime::getInstance() == &m_runtime && !KesaRuntime::isRegistryHost()) {
            refused(Response::createErrorResponse(409, whyNotHere(KesaRuntime::getInstance()->getConfigAccessor())));
            return;
        }
        if (const std::string problem = reloadPolicy(); !problem.empty()) {
            refused(Response::createErrorResponse(400, problem));
            return;
        }
        m_core->setMirrorProof([weak = weak_from_this()](const std::string& path, std::function<void(bool)>&& answer) {
            if (const auto self = weak.lock()) {
                self->prove(path, std::move(answer));
            }
        });
        const bool waits = m_predecessors.await([weak = weak_from_this()] {
            if (const auto self = weak.lock()) {
                self->begin();
            }
        });
        if (!waits) {
            begin();
        }
    }

    void stop()
    {
        {
            const std::lock_guard lock(m_mutex);
            if (std::exchange(m_isStopped, true)) {
                return;
            }
            if (!m_isRegistered) {
                if (!m_successors.expired()) {
                    m_predecessors.setEnding(m_successors);
                }
                return;
            }
        }
        withdraw();
    }

    std::string reloadPolicy()
    {
        ReadPolicy read = readPolicy(::geteuid());
        for (const std::string& warning : read.warnings) {
            KESA_TRACE(CHANNEL, 3, "[policy] %s", warning.c_str());
        }
        if (read.policy && isPolicyLost(read)) {
            read.policy = nullptr;
            read.problem = fmt::format("the document that the policy in force was read from, {}, is not read any more: "
                                       "{}; put it back, or start this process anew",
                                       m_policyFile, read.file.empty() ? "there is none" : read.file + " is");
        }
        if (read.policy) {
            const bool hasRules = read.policy->hasRules();
            std::unique_lock lock(m_mutex);
            m_policyFile = read.file;
            const bool hadRules = std::exchange(m_hasRules, hasRules);
            m_policy = read.policy->summary();
            lock.unlock();
            if (hadRules && !hasRules) {
                KESA_TRACE(CHANNEL, 3,
                           "[policy] the document has no policy any more: every user may register what is "
                           "free");
            }
            m_core->setPolicy(std::move(read.policy));
        } else {
            m_core->keepPolicy(read.problem);
        }
        return read.problem;
    }

    /// A document that was removed or moved is no order to let everybody register.
    bool isPolicyLost(const ReadPolicy& read)
    {
        const std::lock_guard lock(m_mutex);
        return m_hasRules && !read.policy->hasRules() && read.file != m_policyFile;
    }

    std::string describePolicy()
    {
        const std::lock_guard lock(m_mutex);
        return m_policy;
    }

    IServiceRegistry& registry() { return *m_registry; }

private:
    void begin()
    {
        const auto successors = std::make_shared<Successors>();
        // It holds this object: whether the registration is ours to end may be known only after `stop`.
        auto handler = std::make_unique<responsehandlers::FuncResponseHandler<ServiceDef>>(
            [self = shared_from_this(), successors](const ServiceDef& serviceDef) {
                self->registered(serviceDef);
                self->beginNext(*successors);
                return false;
            },
            [self = shared_from_this(), successors](const Response& error) {
                self->refused(error);
                self->beginNext(*successors);
            },
            [] {});
        // For whoever has to know whether the services of before may have found a registry that was started anew.
        const GenericObject metainfo{{"started_ms", comm::now() / comm::MILLISECOND}};
        const std::lock_guard lock(m_mutex); // the runtime only posts
        if (!m_isStopped) {
            m_successors = successors;
            m_registration = serviceregistry::registerRegistry(m_runtime, m_service, metainfo, std::move(handler));
        }
    }

    void beginNext(Successors& successors)
    {
        for (const std::function<void()>& begin : m_predecessors.setEnded(successors)) {
            begin();
        }
    }

    void registered(const ServiceDef& serviceDef)
    {
        // Not left to the tracking, so that it comes first.
        mirror(ServiceUpdate(ResourceUpdateType::eADDED, serviceDef));
        follow();
        bool isUnwanted = false;
        {
            const std::lock_guard lock(m_mutex);
            m_isRegistered = true;
            isUnwanted = m_isStopped;
        }
        if (isUnwanted) {
            withdraw();
        } else {
            m_ready();
        }
    }

    /// What was refused is never disposed: that would end the registration that was in its way.
    void refused(const Response& error)
    {
        {
            const std::lock_guard lock(m_mutex);
            const bool wasRegistered = std::exchange(m_isRegistered, false);
            if (std::exchange(m_isStopped, true) || wasRegistered) {
                return;
            }
        }
        m_failed(error);
    }

    void withdraw()
    {
        if (const auto follower = m_follower.lock()) {
            follower->beQuiet();
        }
        std::unique_lock lock(m_mutex);
        Disposable registration = std::exchange(m_registration, Disposable());
        lock.unlock();
        registration.dispose();
    }

    /// Only of what is registered.
    void follow()
    {
        const auto mirror = [weak = weak_from_this()](const ServiceUpdate& update) {
            if (const auto self = weak.lock()) {
                self->mirror(update);
            }
        };
        auto follower = std::make_shared<Follower>(mirror);
        if (const auto found = m_predecessors.findFollower(follower)) {
            found->takeOver(mirror);
            m_follower = found;
            return;
        }
        m_follower = follower;
        auto handler = std::make_unique<responsehandlers::FuncResponseHandler<ServiceUpdate>>(
            [follower = std::move(follower)](const ServiceUpdate& update) {
                follower->told(update);
                return false;
            },
            [](const Response&) {}, [] {});
        static_cast<void>(m_runtime.trackServices(Query("**"), std::move(handler)));
    }

    /// The registry is not called with the mutex held: it may ask for a proof.
    void mirror(const ServiceUpdate& update)
    {
        {
            const std::lock_guard lock(m_mutex);
            if (m_isStopped) {
                return;
            }
        }
        const std::string& path = update.element.path.toString();
        const auto before = m_mirrored.find(path);
        void* const old = before == m_mirrored.end() ? nullptr : before->second;
        if (update.type == ResourceUpdateType::eREMOVED) {
            m_mirrored.erase(path);
        } else {
            // There is nobody to tell: the registrator has been told by the runtime.
            m_mirrored[path] =
                m_core->mirror(std::make_unique<responsehandlers::FuncResponseHandler<ServiceDef>>(
                                   [](const ServiceDef&) { return false; }, [](const Response&) {}, [] {}),
                               update.element);
        }
        m_core->cancelRequest(old);
    }

    /// A withdrawal is known to the runtime before the mirror hears of it, so the runtime is asked: a new tracking is
    /// told at once of what is registered, behind all that was posted before. Without an answer, the mirror's removal
    /// is on its way, or all requests are about to end.
    void prove(const std::string& path, std::function<void(bool)>&& answer)
    {
        const std::lock_guard lock(m_mutex); // the runtime only posts
        if (m_isStopped) {
            return;
        }
        m_runtime
            .trackService(path, std::make_unique<responsehandlers::FuncResponseHandler<ServiceUpdate>>(
                                    [answer = std::move(answer)](const ServiceUpdate& update) {
                                        if (update.type == ResourceUpdateType::eADDED) {
                                            answer(true);
                                        }
                                        return false;
                                    },
                                    [](const Response&) {}, [] {}))
            .dispose();
    }

    IRuntimeRegistry& m_runtime;
    Predecessors& m_predecessors = Predecessors::of(m_runtime);
    const std::function<void()> m_ready;
    const std::function<void(const Response&)> m_failed;
    Registry* const m_registry; ///< the service's
    const std::shared_ptr<Registry::Impl> m_core;
    const std::shared_ptr<ServiceRegistryPexService> m_service;
    std::weak_ptr<Follower> m_follower; ///< set before `m_isRegistered`

    std::mutex m_mutex; ///< between the owner's `stop`, the executor and the updater
    // With the mutex held.
    bool m_isStopped = false; ///< by the owner, or because it was refused
    bool m_isRegistered = false;
    bool m_hasRules = false;
    std::string m_policyFile; ///< it was read from
    std::string m_policy;     ///< in words
    Disposable m_registration;
    std::weak_ptr<Successors> m_successors; ///< none before it has begun

    /// Requests at the registry, by path. Of the executor until the services are followed, then of the updater.
    std::map<std::string, void*> m_mirrored;
};

RegistryHost::RegistryHost(IRuntimeRegistry& runtime, std::function<void()> ready,
                           std::function<void(const Response& error)> failed)
    : m_impl(std::make_shared<Impl>(runtime, std::move(ready), std::move(failed)))
{
    m_impl->start();
}

RegistryHost::~RegistryHost()
{
    stop();
}

std::string RegistryHost::reloadPolicy()
{
    return m_impl->reloadPolicy();
}

std::string RegistryHost::describePolicy() const
{
    return m_impl->describePolicy();
}

void RegistryHost::stop()
{
    m_impl->stop();
}

serviceregistry::IServiceRegistry& RegistryHost::registry()
{
    return m_impl->registry();
}

} // namespace kesa::registry
