#ifndef KESA_TESTS_SIM_OBSERVERS_H
#define KESA_TESTS_SIM_OBSERVERS_H

#include <kesa/IKesaApi.h>
#include <kesa/IResponseHandler.h>
#include <kesa/ResourceUpdate.h>
#include <kesa/Response.h>
#include <kesa/optional.h>
#include <kesa/runtime/v02/ResolveResult.h>
#include <kesa/serviceregistry/RegistryUpdate.h>
#include <kesa/serviceregistry/ServiceDef.h>

#include <comm/Clock.h>
#include <comm/Condition.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// What each observer of a stream saw, and the rules it checks at every call.
namespace kesa::sim {

/// When something happened: simulated time does not tell what came first within one instant.
struct Moment {
    std::uint64_t number = 0; ///< 0: not yet
    comm::TimeNs time = 0;
};

/// Collects the broken rules of one run. Any thread.
class Verdict {
public:
    void fail(const std::string& rule, const std::string& what)
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_failures.push_back(rule + ": " + what);
    }
    std::vector<std::string> failures() const
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        return m_failures;
    }
    bool failed() const { return !failures().empty(); }

    /// Guards every observer's record; notified at each change of one.
    std::mutex mutex;
    comm::Condition changed;
    /// With the mutex held.
    Moment now() { return {++m_moments, comm::now()}; }

private:
    mutable std::mutex m_lock;
    std::vector<std::string> m_failures;
    std::uint64_t m_moments = 0;
};

using Client = std::shared_ptr<IKesaApi>;

/// What one stream has told so far; outlives its handler.
struct Belief {
    std::string name;
    std::map<std::string, bool> present;       ///< per path, what was said last
    std::map<std::string, std::string> claims; ///< per path, which registration's record was shown last
    Client client;                             ///< of a resolving stream, while present
    std::map<std::string, Client> clients;     ///< of a resolving query
    std::string answer;                        ///< of a request, the last one
    unsigned short error = 0;
    bool terminal = false;
    bool destroyed = false;
    bool processDead = false; ///< its process was killed: nothing may come, nothing need end
    int inCall = 0;
    unsigned values = 0;

    // Of a registration.
    std::string claim;     ///< its number, which its record carries
    std::string colour;    ///< what queries ask for
    bool accepted = false; ///< `onNext` came
    Moment begun;
    Moment failed;
    Moment ended; ///< withdrawn, refused, or dead with its process
    bool isInForce() const { return accepted && ended.number == 0; }

    /// Client objects let go; they die outside of the lock, since that may end requests.
    std::vector<Client> dropped;
    void drop(Client& held)
    {
        if (held) {
            dropped.push_back(std::move(held));
        }
        held.reset();
    }
    void dropAll()
    {
        drop(client);
        for (auto& [path, held] : clients) {
            drop(held);
        }
        clients.clear();
    }
};

/// The rules of every stream: one call at a time, nothing after a terminal call, nothing after the destructor,
/// destroyed once.
template <class T>
class Observer : public IResponseHandler<T> {
public:
    Observer(Verdict& verdict, std::shared_ptr<Belief> belief) : m_verdict(verdict), m_belief(std::move(belief)) {}
    ~Observer() override
    {
        std::vector<Client> dropped;
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        if (m_belief->destroyed) {
            m_verdict.fail("destroyed once", m_belief->name);
        }
        m_belief->destroyed = true;
        if (m_belief->ended.number == 0) {
            m_belief->ended = m_verdict.now();
        }
        m_belief->dropAll();
        dropped.swap(m_belief->dropped);
        m_verdict.changed.notifyAll();
    }

    bool onNext(const T& value) override
    {
        std::vector<Client> dropped;
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        enter();
        ++m_belief->values;
        see(value, *m_belief);
        leave(dropped);
        return false;
    }
    void onError(const Response& error) override
    {
        std::vector<Client> dropped;
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        enter();
        m_belief->terminal = true;
        m_belief->error = error.getStatus();
        m_belief->failed = m_verdict.now();
        m_belief->dropAll();
        leave(dropped);
    }
    void onCompleted() override
    {
        std::vector<Client> dropped;
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        enter();
        m_belief->terminal = true;
        leave(dropped);
    }

protected:
    virtual void see(const T& value, Belief& belief) = 0;

    /// Announced and gone take turns, beginning with announced.
    void alternate(const std::string& path, bool present)
    {
        bool& last = m_belief->present[path];
        if (last == present) {
            m_verdict.fail("present and absent take turns",
                           m_belief->name + ": " + path + (present ? " present twice" : " absent twice"));
        }
        last = present;
    }

private:
    void enter()
    {
        if (m_belief->destroyed) {
            m_verdict.fail("nothing after the destructor", m_belief->name);
        }
        if (m_belief->terminal) {
            m_verdict.fail("nothing after a terminal call", m_belief->name);
        }
        if (m_belief->processDead) {
            m_verdict.fail("nothing in a dead process", m_belief->name);
        }
        if (++m_belief->inCall != 1) {
            m_verdict.fail("one call at a time", m_belief->name);
        }
    }
    void leave(std::vector<Client>& dropped)
    {
        --m_belief->inCall;
        dropped.swap(m_belief->dropped);
        m_verdict.changed.notifyAll();
    }

    Verdict& m_verdict;
    std::shared_ptr<Belief> m_belief;
};

using serviceregistry::RegistryUpdate;
using serviceregistry::ServiceDef;

/// The key of the metainfo under which a record carries the number of its registration.
inline constexpr const char* CLAIM = "claim";

inline std::string claimOf(const ServiceDef& service)
{
    return service.metainfo ? std::string((*service.metainfo)[CLAIM].stringView()) : std::string();
}

class RegistrationObserver final : public Observer<ServiceDef> {
public:
    using Observer::Observer;

private:
    void see(const ServiceDef&, Belief& belief) override { belief.accepted = true; }
};

class TrackingObserver final : public Observer<ResourceUpdate<ServiceDef>> {
public:
    using Observer::Observer;

private:
    void see(const ResourceUpdate<ServiceDef>& update, Belief& belief) override
    {
        belief.claims[update.element.path.toString()] = claimOf(update.element);
        alternate(update.element.path.toString(), update.type == ResourceUpdateType::eADDED);
    }
};

class ResolvingObserver final : public Observer<optional<Client>> {
public:
    using Observer::Observer;

private:
    void see(const optional<Client>& value, Belief& belief) override
    {
        alternate("", value.has_value());
        belief.drop(belief.client);
        belief.client = value.value_or(nullptr);
    }
};

class TrackAndResolveObserver final : public Observer<optional<runtime::v02::ResolveResult<Client>>> {
public:
    using Observer::Observer;

private:
    void see(const optional<runtime::v02::ResolveResult<Client>>& value, Belief& belief) override
    {
        alternate("", value.has_value());
        belief.drop(belief.client);
        belief.client = value ? value->api : nullptr;
    }
};

class TrackAndResolveQueryObserver final : public Observer<runtime::v02::ResolveResult<optional<Client>>> {
public:
    using Observer::Observer;

private:
    void see(const runtime::v02::ResolveResult<optional<Client>>& value, Belief& belief) override
    {
        const std::string path = value.serviceDef.path.toString();
        alternate(path, value.api.has_value());
        belief.claims[path] = claimOf(value.serviceDef);
        belief.drop(belief.clients[path]);
        if (value.api) {
            belief.clients[path] = *value.api;
        } else {
            belief.clients.erase(path);
        }
    }
};

/// Answers of one request.
class AnswerObserver final : public Observer<Response> {
public:
    using Observer::Observer;

private:
    void see(const Response& response, Belief& belief) override
    {
        belief.answer = std::string(response.getPayload().text());
    }
};

/// The registry's own list, as one who watches it from inside.
class RegistryObserver final : public Observer<std::vector<RegistryUpdate>> {
public:
    using Observer::Observer;

private:
    void see(const std::vector<RegistryUpdate>& updates, Belief& belief) override
    {
        for (const RegistryUpdate& update : updates) {
            const std::string path = update.element->path.toString();
            belief.claims[path] = claimOf(*update.element);
            alternate(path, update.updateType == RegistryUpdate::UpdateTypeEnum::ADDED);
        }
    }
};

} // namespace kesa::sim

#endif
