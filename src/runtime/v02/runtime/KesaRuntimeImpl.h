#ifndef KESA_RUNTIME_V02_KESARUNTIMEIMPL_H
#define KESA_RUNTIME_V02_KESARUNTIMEIMPL_H

#include <comm/ActiveObject.h>
#include <comm/Clock.h>
#include <comm/OncePer.h>
#include <comm/PeerLines.h>
#include <kesa/Disposable.h>
#include <kesa/FuncCallEvent.h>
#include <kesa/Path.h>
#include <kesa/PathPatterns.h>
#include <kesa/Receipt.h>
#include <kesa/Response.h>
#include <kesa/core/response_handlers.h>
#include <kesa/runtime/v02/IKesaRuntime.h>
#include <runtime/v02/config/KesaConfig.h>
#include <runtime/v02/runtime/BackendList.h>
#include <runtime/v02/runtime/Handle.h>
#include <runtime/v02/runtime/HandlerTypes.h>
#include <runtime/v02/runtime/LoopWatch.h>
#include <runtime/v02/runtime/QueryTrackers.h>
#include <runtime/v02/runtime/QueryUpdateBookkeeper.h>
#include <runtime/v02/runtime/Reasons.h>
#include <runtime/v02/runtime/RemoteRegistryHandler.h>
#include <runtime/v02/runtime/channels.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kesa::runtime::v02 {

/// The runtime itself: configuration, backends, two threads and every table of service state. One source unit per
/// topic: core, registration, remote registration, the registry in this process, unregistration, tracking, query
/// tracking, remote tracking, resolving, track-and-resolve, and that by query.
///
/// Threads. The executor runs everything that reads or writes the tables (asserted), so they have no locks. The updater
/// delivers fan-outs and errors to clients. Public operations and `Disposable`s only post to the executor. `start` and
/// the destructor run on the caller's thread; what they do to the tables and the backend list they post and wait for.
///
/// Closures on the two loops hold the plain object: both loops are joined before it dies. What outlives it holds the
/// executor weakly, and posting to a loop that was stopped does nothing.
///
/// A handler called from here can only post: no table changes under an iterator because of a handler.
class KesaRuntimeImpl final : public IKesaRuntime {
public:
    /// `note`: where it says what tools read; null: nowhere, as in a simulation.
    explicit KesaRuntimeImpl(KesaConfig&& config, std::unique_ptr<ProcessNote> note = nullptr);
    KesaRuntimeImpl(const KesaRuntimeImpl&) = delete;
    KesaRuntimeImpl& operator=(const KesaRuntimeImpl&) = delete;
    /// Ends both loops and the backends. Not on a loop of this runtime.
    ~KesaRuntimeImpl() override;

    /// False: started, or running already. True: it cannot.
    bool start();
    bool isRunning() const noexcept { return m_isRunning; }
    /// Known when `start` has returned.
    bool isRegistryHost() const noexcept { return isRuntimeInRegistry; }
    /// The caller is the executor or the updater.
    bool isRuntimeThread() const noexcept;

    Disposable registerService(const std::string& path, std::shared_ptr<IKesaApi> api, ServiceDef::TypeEnum type,
                               const GenericObject& metainfo, std::unique_ptr<RegistrationHandler>&& handler) override;
    Disposable registerService(const std::string& path, std::shared_ptr<IKesaApi> api, ServiceDef::TypeEnum type,
                               const std::vector<std::string>& versions, const GenericObject& metainfo,
                               std::unique_ptr<RegistrationHandler>&& handler) override;
    Disposable trackService(const std::string& path, bool, std::unique_ptr<TrackingHandler>&& handler) override;
    Disposable trackService(const std::string& path, std::unique_ptr<TrackingHandler>&& handler) override;
    Disposable trackServices(const Query& query, std::unique_ptr<TrackingHandler>&& handler) override;
    Disposable resolveService(const url& locator, std::unique_ptr<ProxyHandler>&& handler) override;
    Disposable resolveService(const ServiceDef& serviceDef, std::unique_ptr<ProxyHandler>&& handler) override;
    Disposable trackAndResolveService(const std::string& path,
                                      std::unique_ptr<ResolvedServiceHandler>&& handler) override;
    Disposable trackAndResolveServices(const Query& query, std::unique_ptr<ResolvedServicesHandler>&& handler) override;
    KesaConfigAccessor getConfigAccessor() const override;
    std::shared_ptr<const IReasons> reasons() const override { return m_reasons; }

private:
    using Trackers = std::vector<std::shared_ptr<QueryUpdateBookkeeper>>;
    using Issue = RemoteRegistryHandler::Issue;
    using UpdateType = RegistryUpdate::UpdateTypeEnum;

    /// What is known about one path.
    struct RuntimeEntry {
        /// Present while this process has the service registered.
        optional<std::unique_ptr<RegistrationHandler>> optionalRegistrator;
        Handle registration; ///< of that, or of the last one
        optional<ServiceDef> optionalServiceDef;
        /// Under which the registration is kept at the remote registry.
        optional<std::uint32_t> remoteRegistrationId;
        comm::TimeNs registered = 0; ///< when that began
        bool isConfirmed = false;    ///< by a registry, once at least
        Trackers trackers;           ///< in order of subscription
        bool isProvidedByThisProcess = false;
        bool isStaticConfigured = false;
        /// Under which the path is tracked at the remote registry.
        optional<std::uint32_t> remoteTrackingId;
        bool isTrackingAnswered = false; ///< it has told of the record, and will tell of its end
        /// What the backends provide for the registration: to be withdrawn with it, whatever its record says by then.
        std::vector<url> providedLocators;
    };

    /// The arguments of one `registerService` on their way to the executor.
    struct Registration {
        std::string path;
        std::shared_ptr<IKesaApi> api;
        ServiceDef::TypeEnum type;
        std::vector<std::string> versions;
        GenericObject metainfo;
        std::unique_ptr<RegistrationHandler> handler;
        Handle handle;
    };

    /// A proxy that one subscription has opened.
    struct OpenedProxy {
        url locator;
        const void* handler; ///< as `openProxy` got it
        std::uint64_t token; ///< of the handler: answers that carry another one are those of an earlier proxy
        /// `openProxy` did not keep the handler. There is nothing to free: on this locator a stranger may have a proxy.
        bool isRefused = false;
    };
    using OpenedProxies = std::map<std::string, OpenedProxy>; // by service path

    /// A query that was forwarded to the remote registry.
    struct RemoteQuery {
        std::uint32_t requestId = 0;
        std::set<std::string> services; ///< paths it has reported, and the local matches it began with
        /// Reported while this process had the path registered, too.
        std::map<std::string, std::shared_ptr<ServiceDef>> hidden;
    };

    struct TrackedAndResolvedService {
        std::unique_ptr<ResolvedServiceHandler> client;
        std::string path;
        bool valuePropagated = false; ///< a present value is the last thing the client was sent
    };
    struct TrackedAndResolvedQuery {
        std::unique_ptr<ResolvedServicesHandler> client;
        std::string pattern;
    };

    template <class Value>
    using HandleMap = std::unordered_map<Handle, Value, HandleHash>;

    // Core
    enum class StartResult { eSTARTED, eNO_PARTITION, eNO_LOCATOR };
    StartResult startOnExecutor(const std::string& partition);
    StartResult findRegistry(const std::string& partition);
    std::string whyNoLocator() const;
    std::shared_ptr<RemoteRegistryHandler> createRemoteRegistryTracker(const url& locator);
    void releaseRegistry();
    void initializeStaticServices();
    template <class T>
    [[nodiscard]] bool refuseWithoutRegistry(const char* operation, const std::string& subject,
                                             IResponseHandler<T>& handler);
    [[nodiscard]] bool refuseNull(const char* operation, std::string_view subject, const void* handler) const;
    template <class T>
    [[nodiscard]] bool refuseBadPath(const char* operation, const std::string& path,
                                     std::unique_ptr<IResponseHandler<T>>& handler);
    void onExecutor() const;
    void onUpdater() const;

    // Registration
    void registerOnExecutor(Registration registration);
    [[nodiscard]] bool joinEntry(RuntimeEntry& entry, Registration& registration);
    static void setRegistrator(RuntimeEntry& entry, Registration& registration);
    void registerDynamic(RuntimeEntry& entry, Registration& registration);
    void registerStatic(RuntimeEntry& entry, Registration& registration);
    [[nodiscard]] bool applyToStaticRecord(RuntimeEntry& entry, const Registration& registration);
    ServiceDef dynamicServiceDef(const Registration& registration) const;
    void announce(RuntimeEntry& entry);
    [[nodiscard]] static bool lacksRegistrator(const RuntimeEntry& entry, int line);
    void refuseRegistrator(const std::string& path, RuntimeEntry& entry, std::string_view reason,
                           std::string_view text = {});
    void refuse(const std::string& path, std::unique_ptr<RegistrationHandler> handler, std::string_view reason,
                std::string_view text = {});
    void endRefused(const std::string& path, std::unique_ptr<RegistrationHandler> handler, Response error);
    void tellRegistered(const ServiceDef& service);

    // Registration at the remote registry
    void registerServiceOnRegistry(RuntimeEntry& entry, const ServiceDef& serviceDef);
    std::unique_ptr<RegistrationHandler> registrationAnswers(const std::shared_ptr<const ServiceDef>& announced,
                                                             const Issue& issue);
    [[nodiscard]] bool isLate(const Issue& issue, const char* caller, const std::string& subject) const;
    RuntimeEntry* entryOfRequest(const std::string& path, optional<std::uint32_t> RuntimeEntry::*current,
                                 std::uint32_t request, const char* caller);
    RuntimeEntry* entryOfIssue(const std::string& path, optional<std::uint32_t> RuntimeEntry::*current,
                               const Issue& issue, const char* caller);
    void onRegistrationConfirmed(const Path& registered, const Issue& issue, ServiceDef answer);
    void onRegistrationFailed(const ServiceDef& serviceDef, const Issue& issue, const Response& error);
    void withdrawRefused(RuntimeEntry& entry, const std::string& path, const Response& error,
                         const std::string& message);

    // The registry in this process
    void registerRegistryService(Registration registration);
    ServiceDef registryServiceDef(const Registration& registration) const;

    // Unregistration. The path may be a part of what goes: taken by value.
    void warnOfOther(const std::string& path, const Handle& disposed) const;
    void noteDropped(const std::string& path, const RuntimeEntry& entry);
    void performUnregistration(std::string path);
    void findAndUnregister(std::string path, const char* caller);
    void deleteRuntimeEntry(std::string path);
    static ServiceDef takeRecord(RuntimeEntry& entry);
    void unprovide(RuntimeEntry& entry, const ServiceDef& record);

    // Tracking
    void addTracker(const std::string& path, std::unique_ptr<QueryUpdateBookkeeper> chain, const Handle& handle);
    void useRemoteRegistry(const std::string& path, const Handle& handle);
    void removeTracker(const std::string& path, const Handle& handle);
    void triggerRuntimeUpdate(ResourceUpdateType type, const ServiceDef& serviceDef, const Trackers& trackers,
                              const QueryTrackers& queryTrackers);
    void triggerQueryRuntimeUpdate(std::vector<ServiceUpdate>&& updates, const QueryTrackers& queryTrackers);
    void deliverToTrackers(const ServiceUpdate& update, const Trackers& trackers);
    void deliverToQueryTrackers(const ServiceUpdate& update, const QueryTrackers::List& queryTrackers);

    // Query tracking
    void startQuery(const Query& query, const Handle& handle, std::unique_ptr<TrackingHandler> handler);
    std::vector<ServiceUpdate> initialMatches(const Query& query, const PathPatterns& patterns) const;
    void disposeQuery(const Query& query, const Handle& handle);

    // Remote tracking
    bool isOwn(const ServiceDef& told, const ServiceDef* registered) const;
    void trackServiceOnRegistry(const std::string& path);
    void cancelRemoteTracking(RuntimeEntry& entry);
    static void traceRefusal(const char* operation, const std::string& subject, const Response& error);
    void followRemotely(const std::string& path);
    void updateRemoteTrackedService(const RegistryUpdate& update, const Issue& issue);
    void removeRemoteTrackedService(RuntimeEntry& entry, const RegistryUpdate& update);
    void remoteTrackingLost(const std::string& path, std::uint32_t request);

    // Remote queries
    void queryServiceOnRegistry(const Query& query, const Handle& handle,
                                const std::vector<ServiceUpdate>& initialUpdates);
    void onRemoteQueryAnswer(const Query& query, const Handle& handle, const Issue& issue,
                             const std::vector<RegistryUpdate>& updates);
    void handleRemoteQueryOnRegistryUpdate(const std::vector<RegistryUpdate>& updates, RemoteQuery& record);
    void handleRemoteServiceRegistered(const std::shared_ptr<ServiceDef>& element, RemoteQuery& record,
                                       std::vector<ServiceUpdate>& added);
    void remoteQueryLost(const Handle& handle);
    void removeUnlessRegisteredHere(const std::string& path, const char* caller);
    [[nodiscard]] bool endRemoteQuery(const Handle& handle);
    void doubtUntilTold(RuntimeEntry& entry);
    void takeBackFromQueries(const ServiceDef& dropped);
    void list(RemoteQuery& record, const std::string& path);
    bool unlist(RemoteQuery& record, const std::string& path);
    void uncount(const std::string& path);
    bool isListed(const std::string& path) const;

    // Resolving
    void resolve(const std::vector<url>& urls, std::unique_ptr<ProxyHandler>&& handler, const Handle& handle);
    void releaseResolve(const Handle& handle);
    void openProxy(OpenedProxy& proxy, std::unique_ptr<ProxyHandler>&& handler);
    void freeProxy(const OpenedProxy& proxy, bool serviceRemoved);

    // Track and resolve
    void startTrackAndResolve(const std::string& path, const Handle& handle,
                              std::unique_ptr<ResolvedServiceHandler> client);
    void onNextOfTracking(const Handle& handle, const ServiceUpdate& update);
    void onAddedOfTracking(const Handle& handle, const ServiceDef& serviceDef);
    void onRemovedOfTracking(const Handle& handle);
    void onErrorOfTracking(const Handle& handle, const Response& error);
    void onCompletedOfTracking(const Handle& handle);
    std::unique_ptr<ProxyHandler> createResolveTrackerForService(const ServiceDef& serviceDef, const Handle& handle,
                                                                 std::uint64_t token);
    void onNextOfResolve(const Handle& handle, std::uint64_t token, const ServiceDef& serviceDef,
                         const ProxyState& state);
    void onErrorOfResolve(const Handle& handle, std::uint64_t token, const Response& error);
    void onCompletedOfResolve(const Handle& handle, std::uint64_t token);
    bool isCurrentProxy(const Handle& handle, std::uint64_t token) const;
    void disposeTrackAndResolve(const Handle& handle);

    // Track and resolve by query
    void startTrackAndResolveQuery(const Query& query, const Handle& handle,
                                   std::unique_ptr<ResolvedServicesHandler> client);
    void onNextOfQueryTracking(const Handle& handle, const ServiceUpdate& update);
    void onAddedOfQueryTracking(const Handle& handle, const ServiceDef& serviceDef);
    void onRemovedOfQueryTracking(const Handle& handle, const ServiceDef& serviceDef);
    void onErrorOfQueryTracking(const Handle& handle, const Response& error);
    void onCompletedOfQueryTracking(const Handle& handle);
    std::unique_ptr<ProxyHandler> createResolveTrackerForQueryServices(const ServiceDef& serviceDef,
                                                                       const Handle& handle, std::uint64_t token);
    void onNextOfQueryResolve(const Handle& handle, std::uint64_t token, const ServiceDef& serviceDef,
                              const ProxyState& state);
    void onErrorOfQueryResolve(const Handle& handle, std::uint64_t token, const std::string& path,
                               const Response& error);
    void onCompletedOfQueryResolve(const Handle& handle, std::uint64_t token, const std::string& path);
    bool isCurrentProxy(const Handle& handle, std::uint64_t token, const std::string& path) const;
    [[nodiscard]] bool freeQueryProxies(const Handle& handle);
    void disposeTrackAndResolveQuery(const Handle& handle);

    // Posting, wrapping and disposing
    Handle newHandle(const void* address) { return {address, newNumber()}; }
    std::uint64_t newNumber() { return m_lastNumber.fetch_add(1, std::memory_order_relaxed) + 1; }
    template <class F>
    void toExecutor(F&& work)
    {
        post(*m_executor, std::forward<F>(work));
    }
    /// The same with what a value that is being handled says. It counts as handled when `work` has returned, and the
    /// update that it has told the updater of has been delivered.
    template <class F>
    void handOver(F&& work)
    {
        toExecutor([work = std::forward<F>(work), receipt = Receipt::take()]() mutable {
            const Receipt::Scope scope(std::move(receipt));
            work();
        });
    }
    template <class F>
    Disposable disposable(F work) const;
    template <class T>
    void postError(const char* operation, const std::string& subject, std::unique_ptr<IResponseHandler<T>> handler,
                   Response error);
    template <class T, class Next, class Error, class Completed>
    std::unique_ptr<IResponseHandler<T>> postingHandler(Next next, Error error, Completed completed);
    template <class Value>
    static optional<Value> take(HandleMap<Value>& table, const Handle& handle);

    std::string m_proc_name;
    const KesaConfig m_config;
    bool m_isRunning = false;
    std::shared_ptr<comm::ActiveObject> m_executor;
    std::shared_ptr<comm::ActiveObject> m_updater;
    LoopWatch m_executorWatch;
    LoopWatch m_updaterWatch;
    BackendList m_backendList;
    const std::shared_ptr<Reasons> m_reasons;
    std::shared_ptr<RemoteRegistryHandler> m_remoteRegistryHandler; ///< set while a remote registry is used
    url m_registryUrl;
    std::vector<url> m_registryLocators;
    const void* m_registryProxyHandle = nullptr;
    std::string m_eventSource;
    comm::OncePer m_droppedTraces{comm::SECOND};
    comm::PeerLines m_keptLines; ///< where the registry is hosted, others' claims of a path of this process cause them
    bool isRuntimeInRegistry = false;
    bool isRegistryServiceRegistered = false;
    QueryTrackers m_queryTrackers;
    std::map<std::string, RuntimeEntry> m_runtimeEntries;
    HandleMap<RemoteQuery> m_remoteQueries;
    HandleMap<OpenedProxy> m_resolvedLocators;
    HandleMap<OpenedProxies> m_resolvedServicesLocators;
    HandleMap<Disposable> m_trackedDisposable;
    HandleMap<TrackedAndResolvedService> m_trackAndResolveServiceHandler;
    HandleMap<TrackedAndResolvedQuery> m_trackAndResolvedServicesQuery;
    std::map<std::string, std::size_t> m_listed; ///< by how many remote queries; paths that are
    std::atomic<std::uint64_t> m_lastNumber{0};  ///< different each time, in any thread; it orders nothing
};

/// What disposing posts to the executor, once. It may come after the runtime is gone.
template <class F>
Disposable KesaRuntimeImpl::disposable(F work) const
{
    return Disposable([executor = std::weak_ptr<comm::ActiveObject>(m_executor), work = std::move(work)]() mutable {
        if (const auto alive = executor.lock()) {
            post(*alive, std::move(work));
        }
    });
}

/// Ends a client's stream on the updater; the handler dies there. `operation` and `subject` are as of
/// `LoopWatch::tell`.
template <class T>
void KesaRuntimeImpl::postError(const char* operation, const std::string& subject,
                                std::unique_ptr<IResponseHandler<T>> handler, Response error)
{
    post(*m_updater,
         [this, operation, subject = subject, handler = std::move(handler), error = std::move(error)]() mutable {
             m_updaterWatch.tell(operation, subject, [&] {
                 handler->onError(error);
                 handler.reset();
             });
         });
}

/// A handler whose calls run `next`, `error` and `completed` on the executor.
template <class T, class Next, class Error, class Completed>
std::unique_ptr<IResponseHandler<T>> KesaRuntimeImpl::postingHandler(Next next, Error error, Completed completed)
{
    return std::make_unique<responsehandlers::FuncResponseHandler<T>>(
        [this, next = std::move(next)](const T& value) {
            toExecutor([next = next, value = value] { next(value); });
            return false;
        },
        [this, error = std::move(error)](const Response& response) {
            toExecutor([error = error, response = response] { error(response); });
        },
        [this, completed = std::move(completed)] { toExecutor(completed); });
}

/// The entry leaves the table before what it holds dies.
template <class Value>
optional<Value> KesaRuntimeImpl::take(HandleMap<Value>& table, const Handle& handle)
{
    auto node = table.extract(handle);
    return node.empty() ? nullopt : optional<Value>(std::move(node.mapped()));
}

/// A process that hosts the registry does nothing before that is registered: 409, at once.
template <class T>
bool KesaRuntimeImpl::refuseWithoutRegistry(const char* operation, const std::string& subject,
                                            IResponseHandler<T>& handler)
{
    if (!isRuntimeInRegistry || isRegistryServiceRegistered) {
        return false;
    }
    m_executorWatch.tell(operation, subject, [&handler] {
        handler.onError(Response::createErrorResponse(
            409, "kesa runtime in registry you must register first the registry service"));
    });
    return true;
}

template <class T>
bool KesaRuntimeImpl::refuseBadPath(const char* operation, const std::string& path,
                                    std::unique_ptr<IResponseHandler<T>>& handler)
{
    const std::string complaint = Path::complaintAboutService(path);
    if (complaint.empty()) {
        return false;
    }
    postError(operation, path, std::move(handler), Response::createErrorResponse(400, complaint));
    return true;
}

} // namespace kesa::runtime::v02

#endif
