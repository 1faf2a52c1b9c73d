// How a process learns that the registry knows its service: a tracking of the own path is told by the own runtime,
// which never asks for what it provides itself. So the registry is asked as any service is, with its request for a
// tracking, over the connection that the runtime has to it. Nothing is asked until somebody wants to know.
//
// One that ends before it is answered withdraws nothing until it is, see `end`. Whoever provides the path meanwhile
// would be refused for it, so he registers when that answer has come: `Ending`.
#include "ServedLoops.h"
#include "isGiven.h"
#include "registryClient.h"
#include "waiting.h"

#include <comm/ICallWatch.h>
#include <kesa/OpenRequest.h>
#include <kesa/core/PayloadConversion.h>
#include <kesa/ease/handler.h>
#include <kesa/ease/provide.h>
#include <kesa/ease/use.h>
#include <kesa/reasonOf.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/RegistryUpdate.h>
#include <obr/ErrorStorage.h>
#include <tracing/Channel.h>

#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace kesa {

using runtime::v02::IRuntimeRegistry;
using serviceregistry::RegistryUpdate;
using serviceregistry::ServiceDef;

namespace {

/// The registry's word that it has the service that is at `locators`.
bool isAdded(const Response& response, const std::vector<url>& locators)
{
    RegistryUpdate update;
    const bool failed = serializer::readPayload(response.getPayload(), update);
    obr::ErrorStorage::ack();
    return !failed && update.updateType == RegistryUpdate::UpdateTypeEnum::ADDED && update.element &&
           update.element->locators == locators;
}

} // namespace

class Registration::Impl : public std::enable_shared_from_this<Registration::Impl> {
public:
    Impl(IRuntimeRegistry* runtime, std::string path, OnRefused onRefused)
        : m_runtime(runtime), m_path(std::move(path)),
          m_refusal(m_refusals.open(tellRefused(m_path, std::move(onRefused))))
    {}
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;
    /// Without an answer when the runtime has ended, and then nobody waits for it any more.
    ~Impl() { Ending::remove(m_runtime, m_path, this); }

    void start(std::shared_ptr<IKesaApi> service, const GenericObject& metainfo)
    {
        const std::shared_ptr<Impl> before = Ending::find(m_runtime, m_path);
        if (!before || !before->startAfter(
                           [self = shared_from_this(), service, metainfo] { self->registerIt(service, metainfo); })) {
            registerIt(std::move(service), metainfo);
        }
    }

    void whenKnown(util::UniqueFunction<void()> handler)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_state == State::eOVER || m_hasEnded) {
                traceDropped();
                return;
            }
            if (m_state != State::ePROVIDED) {
                m_waiting.push_back(std::move(handler));
                return;
            }
        }
        ask(std::move(handler));
    }

    void end()
    {
        Disposable registration;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_hasEnded = true;
            // What is asked for may yet be refused, and its `Disposable` would end what is in its way: left to the
            // answer.
            if (m_state == State::eASKED) {
                Ending::add(m_runtime, m_path, weak_from_this());
            } else {
                if (m_state == State::ePROVIDED) {
                    registration = std::exchange(m_registration, {});
                }
                m_state = State::eOVER;
            }
        }
        registration.dispose();
        endFollowing();
        m_refusal->withdraw();
    }

private:
    /// `eWAITING`: for the answer to one of the same path that has ended.
    enum class State { eWAITING, eASKED, ePROVIDED, eOVER };

    /// Those of this process that have ended and are not answered yet, the last one of each path. Any thread.
    class Ending {
    public:
        static std::shared_ptr<Impl> find(IRuntimeRegistry* runtime, const std::string& path)
        {
            const std::lock_guard<std::mutex> lock(mutex());
            const auto found = table().find({runtime, path});
            return found == table().end() ? nullptr : found->second.lock();
        }
        static void add(IRuntimeRegistry* runtime, const std::string& path, std::weak_ptr<Impl> registration)
        {
            const std::lock_guard<std::mutex> lock(mutex());
            table()[{runtime, path}] = std::move(registration);
        }
        /// Also those that have gone without an answer.
        static void remove(IRuntimeRegistry* runtime, const std::string& path, const Impl* registration)
        {
            std::shared_ptr<Impl> known; // may be the last of its owners, so not destroyed under the lock
            const std::lock_guard<std::mutex> lock(mutex());
            const auto found = table().find({runtime, path});
            if (found != table().end()) {
                known = found->second.lock();
                if (!known || known.get() == registration) {
                    table().erase(found);
                }
            }
        }

    private:
        using Table = std::map<std::pair<IRuntimeRegistry*, std::string>, std::weak_ptr<Impl>>;
        static std::mutex& mutex()
        {
            static std::mutex& instance = *new std::mutex;
            return instance;
        }
        static Table& table()
        {
            static Table& instance = *new Table;
            return instance;
        }
    };

    /// False when there is nothing to wait for.
    bool startAfter(util::UniqueFunction<void()> next)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_hasEnded || m_state != State::eASKED) {
            return false;
        }
        m_next.push_back(std::move(next));
        return true;
    }

    /// The path is free, or another's.
    void startNext()
    {
        std::vector<util::UniqueFunction<void()>> next;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_state = State::eOVER;
            next.swap(m_next);
        }
        Ending::remove(m_runtime, m_path, this);
        for (auto& start : next) {
            start();
        }
    }

    void registerIt(std::shared_ptr<IKesaApi> service, const GenericObject& metainfo)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_hasEnded) {
                return;
            }
            m_state = State::eASKED;
        }
        Disposable registration;
        const auto registerAt = [&](IRuntimeRegistry& runtime) {
            // In the handler, which the runtime keeps for as long as it serves the path.
            auto provided = [self = shared_from_this(),
                             here = servedHere(runtime, service.get())](const ServiceDef& record) {
                here->registered(record.locators);
                self->provided(record);
            };
            registration = runtime.registerService(
                m_path, std::move(service), ServiceDef::TypeEnum::pex, metainfo,
                handler<ServiceDef>(std::move(provided),
                                    [self = shared_from_this()](const Response& error) { self->refused(error); }));
        };
        if (m_runtime != nullptr) {
            registerAt(*m_runtime);
        } else if (!runtime::v02::KesaRuntime::withInstance(registerAt)) {
            refused(Response::createErrorResponse(503, detail::NO_RUNTIME));
        }
        std::unique_lock<std::mutex> lock(m_mutex); // not within `withInstance`: `ask` takes the two in turn
        m_registration = std::move(registration);
        if (m_hasEnded && m_isProvided) { // another thread was faster
            registration = std::exchange(m_registration, {});
            lock.unlock();
            registration.dispose();
        }
    }

    static std::shared_ptr<detail::ServedHere> servedHere(const IRuntimeRegistry& runtime, const IKesaApi* service)
    {
        const auto* const onLoop = dynamic_cast<const detail::HasServedLoop*>(service);
        return std::make_shared<detail::ServedHere>(&runtime, onLoop == nullptr ? nullptr : onLoop->servedLoop);
    }

    void provided(const ServiceDef& record)
    {
        std::vector<util::UniqueFunction<void()>> waiting;
        Disposable unwanted;
        bool hasEnded = false;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_isProvided = true;
            m_locators = record.locators;
            waiting.swap(m_waiting);
            hasEnded = m_hasEnded;
            if (hasEnded) {
                unwanted = std::exchange(m_registration, {});
            } else {
                m_state = State::ePROVIDED;
            }
        }
        if (hasEnded) {
            unwanted.dispose();
            startNext();
        }
        for (auto& handler : waiting) {
            ask(std::move(handler));
        }
    }

    void refused(const Response& error)
    {
        startNext();
        endFollowing();
        m_refusal->onError(error);
    }

    static std::unique_ptr<IResponseHandler<Response>> tellRefused(const std::string& path, OnRefused onRefused)
    {
        auto tell = [path, onRefused = std::move(onRefused)](const Response& error) mutable {
            if (onRefused) {
                onRefused(error);
                return;
            }
            static const ::tracing::Channel channel("KESA_EASE");
            KESA_TRACE(channel, 3, "[provide] the registration of '%s' was refused: %s", path.c_str(),
                       reasonOf(error).c_str());
        };
        return kesa::handler<Response>([](const Response&) {}, std::move(tell));
    }

    /// Who calls it knows the registry's path alone.
    static void tellKnown(util::UniqueFunction<void()>& handler, const std::string& path)
    {
        if (comm::ICallWatch* const watch = comm::ICallWatch::current()) {
            watch->tellInside("whenKnown", path, [&handler] { handler(); });
        } else {
            handler();
        }
    }

    void ask(util::UniqueFunction<void()> handler)
    {
        std::vector<url> locators;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_hasEnded || m_state == State::eOVER) {
                return;
            }
            locators = m_locators;
        }
        const auto next = [handler = std::make_shared<util::UniqueFunction<void()>>(std::move(handler)),
                           locators = std::move(locators), path = m_path](const Response& response) {
            if (isAdded(response, locators)) {
                tellKnown(*handler, path);
            }
        };
        constexpr unsigned short ENDED = 503; // the registration, or the runtime
        const auto told = m_told.open(kesa::handler<Response>(next, [](const Response& error) {
            if (error.getStatus() != ENDED) {
                detail::TraceError()(error);
            }
        }));
        if (!told) {
            return;
        }
        const std::shared_ptr<Client> registry = detail::registryClient(m_runtime);
        Disposable following = registry->follow(Request("retrieve", m_path), told->makeHandler());
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_hasEnded || m_state == State::eOVER) { // meanwhile
            lock.unlock();
            following.dispose();
            return;
        }
        m_registry = registry;
        m_following.push_back(std::move(following));
    }

    /// What waits and what is told, both for good. Each caller waits for the handlers that are running, not only the
    /// first.
    void endFollowing()
    {
        std::vector<util::UniqueFunction<void()>> waiting;
        std::vector<Disposable> following;
        std::shared_ptr<Client> registry;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            waiting.swap(m_waiting);
            following.swap(m_following);
            registry.swap(m_registry);
        }
        for (Disposable& disposable : following) {
            disposable.dispose();
        }
        for (const auto& told : m_told.close()) {
            told->withdraw();
        }
    }

    /// After a refusal its own text has said why.
    void traceDropped() const
    {
        if (m_hasEnded) {
            static const ::tracing::Channel channel("KESA_EASE");
            KESA_TRACE(channel, 3,
                       "[whenKnown] a handler for '%s' will hear nothing: the registration has ended; keep what "
                       "kesa::provide returns, and call whenKnown on that",
                       m_path.c_str());
        }
    }

    IRuntimeRegistry* const m_runtime; ///< null: that of the process
    const std::string m_path;
    OpenRequests m_refusals;
    const std::shared_ptr<OpenRequest> m_refusal; ///< what is told of it, until the end

    std::mutex m_mutex; ///< of all below
    State m_state = State::eWAITING;
    bool m_hasEnded = false;
    bool m_isProvided = false; ///< it has been, whatever came then
    Disposable m_registration;
    std::vector<url> m_locators;                         ///< once provided
    std::vector<util::UniqueFunction<void()>> m_waiting; ///< until then
    std::vector<util::UniqueFunction<void()>> m_next;    ///< what waits for the answer to one that has ended
    std::shared_ptr<Client> m_registry;                  ///< once somebody wants to know; others have it, too
    std::vector<Disposable> m_following;                 ///< through that

    OpenRequests m_told; ///< the handlers of `whenKnown`
};

Registration::Registration(IRuntimeRegistry* runtime, const std::string& path, std::shared_ptr<IKesaApi> service,
                           const GenericObject& metainfo, OnRefused onRefused)
    : m_impl(std::make_shared<Impl>(runtime, path, std::move(onRefused)))
{
    m_impl->start(std::move(service), metainfo);
}

Registration::~Registration()
{
    m_impl->end();
}

// What calls a handler, or destroys one, or asks for what calls one in another thread, keeps what it works on: the
// handler may drop us.

void Registration::whenKnown(util::UniqueFunction<void()> handler)
{
    if (!detail::isGiven(handler, "kesa::Registration::whenKnown is given no handler: give it a function")) {
        return;
    }
    const auto impl = m_impl;
    impl->whenKnown(std::move(handler));
}

void Registration::end()
{
    const auto impl = m_impl;
    impl->end();
}

std::unique_ptr<Registration> provide(const std::string& path, std::shared_ptr<IKesaApi> service,
                                      const GenericObject& metainfo, Registration::OnRefused onRefused)
{
    return std::make_unique<Registration>(nullptr, path, std::move(service), metainfo, std::move(onRefused));
}

std::unique_ptr<Registration> provide(IRuntimeRegistry& runtime, const std::string& path,
                                      std::shared_ptr<IKesaApi> service, const GenericObject& metainfo,
                                      Registration::OnRefused onRefused)
{
    return std::make_unique<Registration>(&runtime, path, std::move(service), metainfo, std::move(onRefused));
}

} // namespace kesa
