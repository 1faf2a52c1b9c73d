#ifndef KESA_REGISTRY_SERVICE_REGISTRYIMPL_H
#define KESA_REGISTRY_SERVICE_REGISTRYIMPL_H

#include "policy/Policy.h"
#include "service/Accounts.h"
#include "store/History.h"
#include "store/Store.h"

#include <comm/PeerLines.h>
#include <kesa/GenericObject.h>
#include <kesa/IPeer.h>
#include <kesa/RequestContext.h>
#include <kesa/registry/Registry.h>
#include <kesa/serviceregistry/WriteOnce.h>
#include <refusals/RefusalTraces.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

namespace kesa::registry {

/// The store with those who ask it: handlers, peers, limits. See the head of RegistryImpl.cpp.
class Registry::Impl : public std::enable_shared_from_this<Registry::Impl> {
public:
    using RegistrationHandler = std::unique_ptr<IResponseHandler<ServiceDef>>;
    using TrackingHandler = std::unique_ptr<IResponseHandler<RegistryUpdate>>;
    using QueryHandler = std::unique_ptr<IResponseHandler<std::vector<RegistryUpdate>>>;

    explicit Impl(const Accounts::Limits& limits);

    void* queryRegistry(QueryHandler&& handler, const Query& query);
    void* registerService(RegistrationHandler&& handler, const std::string& path, const ServiceDef& serviceDef);
    void* trackService(TrackingHandler&& handler, const std::string& path);
    void cancelRequest(void* handle);
    void explain(IResponseHandler<GenericObject>& handler, const std::string& path, const std::string& process);

    /// Asks whether this process still provides a mirrored service: `answer(true)` if so, later; no answer if not,
    /// since the mirror's own removal is on its way then. Called with the mutex held.
    using MirrorProof = std::function<void(const std::string& path, std::function<void(bool)>&& answer)>;
    /// To be called before the first `mirror`.
    void setMirrorProof(MirrorProof&& prove);
    /// Registers a service of this process; it waits for a path that another living process holds.
    void* mirror(RegistrationHandler&& handler, const ServiceDef& serviceDef);
    /// What it no longer allows ends with 403, and who may see otherwise is told; the rest feels nothing.
    void setPolicy(std::shared_ptr<Policy> policy);
    /// The document could not be read again, so the policy stays. `problem`: why.
    void keepPolicy(std::string problem);
    /// Lets go of all requests; their handlers are not called.
    void close();

private:
    using AskerKey = std::pair<const IPeer*, std::array<std::uint8_t, 16>>; ///< the peer, its instance
    struct Request;
    /// A connection, or this process: who makes requests.
    struct Asker {
        AskerKey key;
        Owner owner;
        std::string process;
        std::string proven; ///< the same, once it has proven it and somebody has asked for that
        std::int64_t pid = -1;
        std::int64_t uid = -1;
        std::int64_t gid = -1;
        PermitPtr permit; ///< null: he may everything
        Realm realm;
        std::shared_ptr<IPeer> peer; ///< null: cannot be asked, and is taken to live and to take whatever it is told
        Accounts::Payer payer;       ///< of who is asked, so not of this process
        std::size_t requests = 0;    ///< open ones
        // Those among them that are registrations, in their order.
        Request* firstRegistration = nullptr;
        Request* lastRegistration = nullptr;

        std::deque<Effect> news;    ///< to be written once its queue is empty
        std::size_t newsBytes = 0;  ///< what they take
        std::set<StreamId> listing; ///< queries whose first answer is not complete; they come after the news
        std::size_t written = 0;    ///< since its queue was last known to be empty
        bool isWaiting = false;     ///< for its queue to be empty
        bool isProbed = false;      ///< asked for a sign of life, since so much waits for it
        bool isCutOff = false;      ///< its connection is going to end: nothing waits for it any more

        std::string name() const;
        /// This process.
        bool isOwn() const { return !peer && process.empty(); }
    };
    using Handler = std::variant<RegistrationHandler, TrackingHandler, QueryHandler>;
    struct Request {
        Handler handler;
        std::shared_ptr<Asker> asker;
        Charge charge;
        // Of a registration.
        std::int64_t since = 0; ///< when it got the path, in milliseconds since 1970; 0: not yet
        StreamId stream = 0;
        Request* previous = nullptr; ///< of its asker
        Request* next = nullptr;
    };
    using Requests = std::unordered_map<StreamId, Request>;

    static std::int64_t wallClockMs() noexcept; ///< since 1970

    template <class Command>
    void turn(const Command& command);
    void work();
    void deliver();

    // requests.cpp
    template <class T, class Command>
    void* open(std::unique_ptr<IResponseHandler<T>>&& handler, const char* operation, const std::string& subject,
               Charge charge, const Command& command);
    void* claim(RegistrationHandler&& handler, const ServiceDef& serviceDef, bool isPatient);

    // identities.cpp
    bool isTrusted(const RequestContext& peer) const;
    std::string identify(ServiceDef& record, unsigned short& status) const;

    // askers.cpp
    std::shared_ptr<Asker> currentAsker();
    std::string add(const std::shared_ptr<Asker>& asker, Handler& handler, const Charge& charge, StreamId& stream);
    Request take(Requests::iterator request);
    static void enlist(StreamId stream, Request& registration);
    static void delist(Request& registration);
    void dropIfIdle(Asker& asker);

    // policing.cpp
    static std::string provenName(IPeer* peer, const std::string& process);
    void proveNames();
    PermitPtr permitOf(const RequestContext* context) const;
    access::Identity identityOf(const Asker& asker) const;
    void admit(Asker& asker) const;
    std::string whyMayNotRegister(const Asker& asker, const std::string& path);
    void forbid(const Asker& asker, IResponseHandler<ServiceDef>& handler, const std::string& path,
                const std::string& why);
    void cutOffCostliest(std::size_t records);
    void cutOffQueries(std::int64_t uid, const std::string& why);
    void endIfForbidden(StreamId stream);
    std::vector<access::Identity> identitiesOf(const std::string& who, bool mayLookUp) const;
    util::config::Value describeMay(const std::string& path, const std::string& who, const Store::Held* held) const;

    GenericObject describePolicy(const RequestContext* context) const;

    // telling.cpp
    using Updates = std::vector<RegistryUpdate>;
    void toAsker(Effect effect, Updates& list);
    void wait(Asker& asker, Effect effect);
    void cutOff(Asker& asker, const std::string& why);
    void cutOffSlowest(const Asker& of);
    Effect takeNews(Asker& asker);
    void dropNews(Asker& asker);
    void tell(Requests::iterator request, const Effect& effect, Updates& list);
    void tellNews(const std::shared_ptr<Asker>& asker);
    void refused(Requests::iterator request, const Effect& effect);
    void listOn(const std::shared_ptr<Asker>& asker);
    void waitForQueue(const std::shared_ptr<Asker>& asker);

    // ends.cpp
    void askHolder(const Effect& effect);
    void keepsWaiting(const Effect& effect);
    void proved(const std::string& path, std::uint64_t proof, bool isAlive, const std::weak_ptr<Asker>& asker);
    void dropRegistrations(const Asker& asker);
    void noteEnd(const Request& registration, const Record& record, History::Event::What what, std::string reason);

    // explain.cpp
    static Who whoOf(const Asker& asker, const Record& record);
    std::string holderOf(const std::string& path, const PermitPtr& permit) const;
    GenericObject describeHolder(const Store::Held& held) const;
    util::config::Value describeHistory(const std::string& path, const PermitPtr& permit) const;
    util::config::Value describeProcess(const std::string& path, const std::string& process, const Store::Held* held);
    GenericObject describeAsking(StreamId stream, const Request& request, const Record* record);

    std::recursive_mutex m_mutex; // recursive: a handler that calls back does not hang; its command waits for its turn
    // With the mutex held.
    Store m_store;
    History m_history;
    const std::int64_t m_ownUid;
    Accounts m_accounts;
    std::shared_ptr<Policy> m_policy; ///< never null
    bool m_needsNames = false;        ///< it, or the one that is about to follow, asks for proven ones
    std::int64_t m_policyRead = 0;    ///< in milliseconds since 1970, as the next but one
    std::string m_policyProblem;      ///< why the last reading of it failed; empty: it did not
    std::int64_t m_policyFailed = 0;
    access::RefusalTraces m_forbidden;
    std::uint64_t m_lastRecord = 0;
    serviceregistry::WriteOnce m_written; ///< in this turn
    const std::int64_t m_started;
    MirrorProof m_proveMirrored;
    Requests m_requests;
    std::map<AskerKey, std::shared_ptr<Asker>> m_askers;
    StreamId m_lastStream = 0;
    comm::PeerLines m_refusalLines; ///< of claims, which may be refused after what their peer sent has been handled
    bool m_isWorking = false;
    std::vector<std::shared_ptr<Asker>> m_ready; ///< whose news and first answers may go on
    std::vector<Request> m_dead;                 ///< to be destroyed once the mutex is free
};

template <class Command>
void Registry::Impl::turn(const Command& command)
{
    std::vector<Request> dead; // destroyed with the mutex free
    const std::lock_guard lock(m_mutex);
    command();
    if (!m_isWorking) {
        m_isWorking = true;
        work();
        m_isWorking = false;
        dead.swap(m_dead);
    }
}

} // namespace kesa::registry

#endif
