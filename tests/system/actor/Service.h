#ifndef KESA_TESTS_SYSTEM_ACTOR_SERVICE_H
#define KESA_TESTS_SYSTEM_ACTOR_SERVICE_H

#include <kesa/ease/ResourceHandler.h>

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

/// What an actor provides: "/echo" answers at once, "/hang" never, "/feed" with 0 at once and then with what `feed`
/// says.
class Service {
public:
    Service();

    std::shared_ptr<kesa::IKesaApi> api() const { return m_api; }

    struct Fed {
        std::size_t taken = 0;
        std::size_t refused = 0;
    };
    /// Sends the next number to each that follows, filled up to `bytes`. Who refuses it follows no longer.
    Fed feed(std::size_t bytes);

private:
    const std::shared_ptr<kesa::ResourceHandler> m_api;
    std::mutex m_mutex;
    std::vector<kesa::Responder> m_followers; ///< under `m_mutex`
    std::vector<kesa::Responder> m_hanging;   ///< under `m_mutex`
    std::size_t m_fed = 0;                    ///< under `m_mutex`
};

#endif
