#ifndef KESA_TESTS_SUPPORT_SCRIPTEDREGISTRY_H
#define KESA_TESTS_SUPPORT_SCRIPTEDREGISTRY_H

#include "NotingHandler.h"

#include <kesa/core/PayloadConversion.h>
#include <kesa/serviceregistry/IServiceRegistry.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kesa::test {

template <class T>
std::string jsonOf(const T& value)
{
    return std::string(serializer::toPayload(value, mimetypes::JSON)->text());
}

/// A registry whose answers the test gives. It notes what it is asked as "query **", "register /a", "track /a",
/// "explain /a" or "cancel track /a", and behind that, if the test wants it whole, the record, the query and the like.
class ScriptedRegistry final : public serviceregistry::IServiceRegistry {
    using Query = serviceregistry::Query;
    using ServiceDef = serviceregistry::ServiceDef;
    using Update = serviceregistry::RegistryUpdate;
    using Updates = std::vector<Update>;

    template <class T>
    using Open = std::map<void*, std::unique_ptr<IResponseHandler<T>>>;

public:
    explicit ScriptedRegistry(Lines& calls, bool isWhole = false) : m_calls(calls), m_isWhole(isWhole) {}

    void* queryRegistry(std::unique_ptr<IResponseHandler<Updates>>&& handler, const Query& query) override
    {
        return add(m_queries, "query " + query.pattern, handler, jsonOf(query));
    }
    void* registerService(std::unique_ptr<IResponseHandler<ServiceDef>>&& handler, const Path& path,
                          const ServiceDef& serviceDef) override
    {
        lastRecord = serviceDef;
        return add(m_registrations, "register " + path.toString(), handler, jsonOf(serviceDef));
    }
    void* trackService(std::unique_ptr<IResponseHandler<Update>>&& handler, const Path& path,
                       const optional<bool>& includeMetaInfo) override
    {
        const std::string flag = includeMetaInfo ? (*includeMetaInfo ? "true" : "false") : "absent";
        return add(m_trackings, "track " + path.toString(), handler, flag);
    }
    void* explain(std::unique_ptr<IResponseHandler<GenericObject>>&& handler, const Path& path,
                  const std::string& process) override
    {
        return add(m_explanations, "explain " + path.toString(), handler, "'" + process + "'");
    }
    void cancelRequest(void* handle) override
    {
        m_calls.push_back("cancel " + m_names[handle]);
        m_queries.erase(handle);
        m_registrations.erase(handle);
        m_trackings.erase(handle);
        m_explanations.erase(handle);
    }

    /// The newest open request of that name.
    auto& query(const std::string& pattern) { return newest(m_queries, "query " + pattern); }
    auto& registration(const std::string& path) { return newest(m_registrations, "register " + path); }
    auto& tracking(const std::string& path) { return newest(m_trackings, "track " + path); }
    auto& explanation(const std::string& path) { return newest(m_explanations, "explain " + path); }

    /// The connection is lost: every stream ends with 503.
    void loseAll()
    {
        const auto end = [](auto& open) {
            for (auto& [handle, handler] : std::exchange(open, {})) {
                handler->onError(Response::createErrorResponse(503));
            }
        };
        end(m_registrations);
        end(m_trackings);
        end(m_queries);
    }

    ServiceDef lastRecord;

private:
    template <class T>
    void* add(Open<T>& open, const std::string& name, std::unique_ptr<IResponseHandler<T>>& handler,
              const std::string& details)
    {
        void* const handle = reinterpret_cast<void*>(++m_last);
        m_calls.push_back(m_isWhole ? name + ' ' + details : name);
        m_names[handle] = name;
        open.emplace(handle, std::move(handler));
        return handle;
    }
    template <class T>
    IResponseHandler<T>& newest(Open<T>& open, const std::string& name)
    {
        const auto found =
            std::find_if(open.rbegin(), open.rend(), [&](const auto& each) { return m_names[each.first] == name; });
        if (found == open.rend()) {
            throw std::runtime_error("no open request " + name);
        }
        return *found->second;
    }

    Lines& m_calls;
    const bool m_isWhole;
    std::uintptr_t m_last = 0;
    std::map<void*, std::string> m_names;
    Open<Updates> m_queries;
    Open<ServiceDef> m_registrations;
    Open<Update> m_trackings;
    Open<GenericObject> m_explanations;
};

} // namespace kesa::test

#endif
