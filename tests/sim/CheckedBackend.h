#ifndef KESA_TESTS_SIM_CHECKEDBACKEND_H
#define KESA_TESTS_SIM_CHECKEDBACKEND_H

#include "Observers.h"

#include <kesa/commadapter/IBackend.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

namespace kesa::sim {

/// What a runtime asked of its backend, and has not taken back.
struct BackendBooks {
    std::map<const void*, std::string> clients; ///< connected and not released, with their locators
    std::multiset<std::string> provided;        ///< and not unprovided
};

/// Stands between a runtime and its backend: keeps the books, and refuses some client objects when the run wants that.
class CheckedBackend final : public commadapter::IBackend {
public:
    CheckedBackend(Verdict& verdict, std::unique_ptr<IBackend> backend, std::shared_ptr<BackendBooks> books,
                   std::function<bool(const url&)> refuses)
        : m_verdict(verdict), m_backend(std::move(backend)), m_books(std::move(books)), m_refuses(std::move(refuses))
    {}

    void start() override { m_backend->start(); }
    void stop() override { m_backend->stop(); }
    bool canHandle(const url& locator) override { return m_backend->canHandle(locator); }
    bool isLocal(const url& locator) override { return m_backend->isLocal(locator); }

    bool provideOnPath(const std::string& path, IKesaApi* service, url& locator) override
    {
        const bool failed = m_backend->provideOnPath(path, service, locator);
        provided(failed, locator);
        return failed;
    }
    bool provideOnLocator(const url& locator, IKesaApi* service) override
    {
        const bool failed = m_backend->provideOnLocator(locator, service);
        provided(failed, locator);
        return failed;
    }
    void unprovide(const url& locator) override
    {
        m_backend->unprovide(locator);
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        m_books->provided.erase(locator.toString());
    }

    commadapter::KesaClientApi* connect(const url& locator, IClientConnectionListener* listener) override
    {
        commadapter::KesaClientApi* const client = m_refuses(locator) ? nullptr : m_backend->connect(locator, listener);
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        if (client != nullptr) {
            m_books->clients.emplace(client, locator.toString());
        }
        return client;
    }
    void release(IKesaApi* client, bool serviceRemoved) override
    {
        m_backend->release(client, serviceRemoved);
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        if (m_books->clients.erase(client) == 0) {
            m_verdict.fail("a client object is released once", "released again");
        }
    }

private:
    void provided(bool failed, const url& locator)
    {
        const std::lock_guard<std::mutex> lock(m_verdict.mutex);
        if (!failed) {
            m_books->provided.insert(locator.toString());
        }
    }

    Verdict& m_verdict;
    const std::unique_ptr<IBackend> m_backend;
    const std::shared_ptr<BackendBooks> m_books;
    const std::function<bool(const url&)> m_refuses;
};

} // namespace kesa::sim

#endif
