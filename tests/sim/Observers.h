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

using serviceregistry::RegistryUpdate;
using serviceregistry::ServiceDef;

/// The key of the metainfo under which a record carries the number of its registration.
inline constexpr const char* CLAIM = "claim";

inline std::string claimOf(const ServiceDef& service)
{
    return service.metainfo ? std::string((*service.metainfo)[CLAIM].stringView()) : std::string();
}

/// A stream of `T`, and its rules: one call at a time, nothing after a terminal call, nothing after the destructor,
/// destroyed once; what is shown present and absent takes turns.
template <class T>
class Observer final : public IResponseHandler<T> {
public:
    Observer(Verdict& verdict, std::shared_ptr<Belief> belief) : m_verdict(verdict), m_belief(std::move(belief)) {}
    ~Observer() override
    {
        change([this] {
            if (m_belief->destroyed) {
                m_verdict.fail("destroyed once", m_belief->name);
            }
            m_belief->destroyed = true;
            if (m_belief->ended.number == 0) {
                m_belief->ended = m_verdict.now();
            }
            m_belief->dropAll();
        });
    }

    bool onNext(const T& value) override
    {
        enter([&] {
            ++m_belief->values;
            see(value);
        });
        return false;
    }
    void onError(const Response& error) override
    {
        enter([&] {
            m_belief->terminal = true;
            m_belief->error = error.getStatus();
            m_belief->failed = m_verdict.now();
            m_belief->dropAll();
        });
    }
    void onCompleted() override
    {
        enter([this] { m_belief->terminal = true; });
    }

private:
    /// Of a registration, a tracking by path or query, a resolving, both ways of both at once, and a request; the last
    /// one is the registry's own list, of one who watches it from inside.
    void see(const ServiceDef&) { m_belief->accepted = true; }
    void see(const ResourceUpdate<ServiceDef>& update)
    {
        show(update.element, update.type == ResourceUpdateType::eADDED);
    }
    void see(const optional<Client>& client) { hold("", m_belief->client, client); }
    void see(const optional<runtime::v02::ResolveResult<Client>>& result)
    {
        if (result) {
            m_belief->claims[""] = claimOf(result->serviceDef);
        }
        hold("", m_belief->client, result ? optional<Client>(result->api) : nullopt);
    }
    void see(const runtime::v02::ResolveResult<optional<Client>>& result)
    {
        const std::string path = result.serviceDef.path.toString();
        m_belief->claims[path] = claimOf(result.serviceDef);
        hold(path, m_belief->clients[path], result.api);
        if (!result.api) {
            m_belief->clients.erase(path);
        }
    }
    void see(const Response& response) { m_belief->answer = std::string(response.getPayload().text()); }
    void see(const std::vector<RegistryUpdate>& updates)
    {
        for (const RegistryUpdate& update : updates) {
            checkRoads(*update.element);
            show(*update.element, update.updateType == RegistryUpdate::UpdateTypeEnum::ADDED);
        }
    }

    void checkRoads(const ServiceDef& service)
    {
        const std::string_view provider = service.metainfo ? (*service.metainfo)["provider"].stringView() : "";
        for (const url& locator : service.locators) {
            const std::string_view authority = locator.authority();
            if (locator.scheme() == "ipc" && !provider.empty() &&
                authority.substr(0, authority.find('+')) != provider) {
                m_verdict.fail("a record leads to who registered it", locator.toString());
            }
        }
    }
    void show(const ServiceDef& service, bool isPresent)
    {
        m_belief->claims[service.path.toString()] = claimOf(service);
        alternate(service.path.toString(), isPresent);
    }
    void hold(const std::string& path, Client& held, const optional<Client>& client)
    {
        alternate(path, client.has_value());
        m_belief->drop(held);
        held = client.value_or(nullptr);
    }
    void alternate(const std::string& path, bool isPresent)
    {
        bool& last = m_belief->present[path];
        if (last == isPresent) {
            m_verdict.fail("present and absent take turns",
                           m_belief->name + ": " + path + (isPresent ? " present twice" : " absent twice"));
        }
        last = isPresent;
    }

    template <class Work>
    void enter(const Work& work)
    {
        change([&] {
            const auto mustNot = [this](bool isSo, const char* rule) {
                if (isSo) {
                    m_verdict.fail(rule, m_belief->name);
                }
            };
            mustNot(m_belief->destroyed, "nothing after the destructor");
            mustNot(m_belief->terminal, "nothing after a terminal call");
            mustNot(m_belief->processDead, "nothing in a dead process");
            mustNot(++m_belief->inCall != 1, "one call at a time");
            work();
            --m_belief->inCall;
        });
    }
    template <class Work>
    void change(const Work& work)
    {
        std::vector<Client> dropped;
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        work();
        dropped.swap(m_belief->dropped);
        m_verdict.changed.notifyAll();
    }

    Verdict& m_verdict;
    std::shared_ptr<Belief> m_belief;
};

} // namespace kesa::sim

#endif
