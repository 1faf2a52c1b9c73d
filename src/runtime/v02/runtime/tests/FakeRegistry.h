#ifndef KESA_RUNTIME_V02_TESTS_FAKEREGISTRY_H
#define KESA_RUNTIME_V02_TESTS_FAKEREGISTRY_H

#include "RuntimeFixture.h"

#include <kesa/serviceregistry/IServiceRegistry.h>
#include <kesa/serviceregistry/ServiceRegistryPexService.h>

#include <map>

namespace kesa::runtime::v02::test {

/// A registry whose answers the test gives. Requests are named "insert /a", "track /a" and "query **"; those that are
/// open, and what was asked for since the last question, in order.
class FakeRegistry final : public serviceregistry::IServiceRegistry {
public:
    using Updates = std::vector<RegistryUpdate>;

    void* queryRegistry(std::unique_ptr<IResponseHandler<Updates>>&& handler, const Query& query) override
    {
        return add("query " + query.pattern, m_queries, std::move(handler));
    }
    void* registerService(std::unique_ptr<IResponseHandler<ServiceDef>>&& handler, const Path& path,
                          const ServiceDef& serviceDef) override
    {
        lastRecord = serviceDef;
        return add("insert " + path.toString(), m_inserts, std::move(handler));
    }
    void* trackService(std::unique_ptr<IResponseHandler<RegistryUpdate>>&& handler, const Path& path,
                       const optional<bool>&) override
    {
        return add("track " + path.toString(), m_tracks, std::move(handler));
    }
    void cancelRequest(void* handle) override
    {
        calls.push_back("cancel " + m_names[handle]);
        m_queries.erase(handle);
        m_inserts.erase(handle);
        m_tracks.erase(handle);
    }

    /// The newest open request of that name.
    IResponseHandler<Updates>& query(const std::string& pattern) { return newest(m_queries, "query " + pattern); }
    IResponseHandler<ServiceDef>& insert(const std::string& path) { return newest(m_inserts, "insert " + path); }
    IResponseHandler<RegistryUpdate>& track(const std::string& path) { return newest(m_tracks, "track " + path); }

    /// The connection is lost: every stream ends with 503.
    void loseAll()
    {
        const auto error = Response::createErrorResponse(503);
        const auto end = [&error](auto& handlers) {
            for (auto& [handle, handler] : std::exchange(handlers, {})) {
                handler->onError(error);
            }
        };
        end(m_inserts);
        end(m_tracks);
        end(m_queries);
    }
    Lines asked() { return std::exchange(calls, {}); }

    Lines calls;
    ServiceDef lastRecord;

private:
    template <class Handlers, class Handler>
    void* add(const std::string& name, Handlers& handlers, Handler&& handler)
    {
        void* const handle = reinterpret_cast<void*>(++m_last);
        calls.push_back(name);
        m_names[handle] = name;
        handlers.emplace(handle, std::forward<Handler>(handler));
        return handle;
    }
    template <class Handlers>
    typename Handlers::mapped_type::element_type& newest(Handlers& handlers, const std::string& name)
    {
        const auto found = std::find_if(handlers.rbegin(), handlers.rend(),
                                        [&](const auto& each) { return m_names[each.first] == name; });
        if (found == handlers.rend()) {
            throw std::runtime_error("no open request " + name);
        }
        return *found->second;
    }

    std::uintptr_t m_last = 0;
    std::map<void*, std::string> m_names;
    std::map<void*, std::unique_ptr<IResponseHandler<Updates>>> m_queries;
    std::map<void*, std::unique_ptr<IResponseHandler<ServiceDef>>> m_inserts;
    std::map<void*, std::unique_ptr<IResponseHandler<RegistryUpdate>>> m_tracks;
};

} // namespace kesa::runtime::v02::test

#endif
