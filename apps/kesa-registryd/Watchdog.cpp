#include "Watchdog.h"

#include "ServiceManager.h"

#include <comm/Scheduler.h>
#include <kesa/Disposable.h>
#include <kesa/IKesaApi.h>
#include <kesa/Request.h>
#include <kesa/Response.h>
#include <kesa/ease/handler.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>

#include <utility>

namespace registryd {

namespace {

using Registry = std::shared_ptr<kesa::IKesaApi>;

constexpr unsigned short NOT_CONNECTED = 503;

} // namespace

class Watchdog::Impl : public std::enable_shared_from_this<Watchdog::Impl> {
public:
    explicit Impl(ServiceManager& manager)
        : m_manager(manager), m_period(manager.beatLimit() / 3),
          m_loop(comm::Scheduler::current().makeReactor("kesa-watchdog"))
    {}

    void start(const kesa::url& registry)
    {
        m_connection = kesa::runtime::v02::KesaRuntime::getInstance()->resolveService(
            registry, kesa::handler<kesa::optional<Registry>>([self = shared_from_this()](const auto& found) {
                self->m_loop->post([self, found] { self->connected(found ? *found : nullptr); });
            }));
    }
    void stop()
    {
        m_loop->stop();
        m_connection.dispose();
    }

private:
    void connected(Registry registry)
    {
        m_registry = std::move(registry);
        m_loop->cancelTimer(std::exchange(m_timer, 0));
        ask();
    }
    /// What is not answered is told to nobody, and the next question waits for the next connection.
    void ask()
    {
        if (!m_registry) {
            return;
        }
        const auto again = [self = shared_from_this(), registry = std::weak_ptr(m_registry)](bool isAnswered) {
            if (isAnswered) {
                self->m_manager.beat();
            }
            self->m_loop->post([self, registry] {
                if (registry.lock() == self->m_registry) {
                    self->m_timer = self->m_loop->startTimer(comm::now() + self->m_period, [self] { self->ask(); });
                }
            });
        };
        static_cast<void>(
            m_registry->request(kesa::Request("explain", kesa::serviceregistry::ServiceRegistryPex::SERVICE_PATH),
                                kesa::handler<kesa::Response>([again](const kesa::Response&) { again(true); },
                                                              [again](const kesa::Response& error) {
                                                                  again(error.getStatus() != NOT_CONNECTED);
                                                              })));
    }

    ServiceManager& m_manager;
    const comm::TimeNs m_period;
    const std::shared_ptr<comm::Reactor> m_loop;
    kesa::Disposable m_connection;
    // The loop's own.
    Registry m_registry; ///< null: not connected
    comm::Reactor::Id m_timer = 0;
};

Watchdog::Watchdog(const kesa::url& registry, ServiceManager& manager)
{
    if (manager.beatLimit() > 0) {
        m_impl = std::make_shared<Impl>(manager);
        m_impl->start(registry);
    }
}

Watchdog::~Watchdog()
{
    if (m_impl) {
        m_impl->stop();
    }
}

} // namespace registryd
