#ifndef KESA_SERVICEREGISTRY_PROTOCOL_TESTS_FAKES_H
#define KESA_SERVICEREGISTRY_PROTOCOL_TESTS_FAKES_H

#include <NotingHandler.h>
#include <PlayedService.h>
#include <kesa/core/PayloadConversion.h>
#include <kesa/serviceregistry/IServiceRegistry.h>
#include <obr/ErrorStorage.h>

#include <gmock/gmock.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kesa::serviceregistry::test {

using kesa::test::Lines;
using kesa::test::noteTexts;
using kesa::test::PlayedService;
using Updates = std::vector<RegistryUpdate>;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

template <class T>
std::string jsonOf(const T& value)
{
    return std::string(serializer::toPayload(value, mimetypes::JSON)->text());
}

inline ServiceDef serviceAt(const std::string& path)
{
    return ServiceDef(Path(path), ServiceDef::TypeEnum::pex, {}, {});
}
inline RegistryUpdate added(const std::string& path)
{
    return RegistryUpdate(RegistryUpdate::UpdateTypeEnum::ADDED, std::make_shared<ServiceDef>(serviceAt(path)));
}
template <class T>
std::unique_ptr<IResponseHandler<T>> noting(Lines& lines)
{
    return std::make_unique<kesa::test::NotingHandler<T>>(lines, [](const T& value) { return jsonOf(value); });
}

/// Notes how it is called, keeps the handlers, and lets the test answer.
class FakeRegistry final : public IServiceRegistry {
public:
    explicit FakeRegistry(Lines& calls) : m_calls(calls) {}

    void* queryRegistry(std::unique_ptr<IResponseHandler<Updates>>&& handler, const Query& query) override
    {
        return note("query " + jsonOf(query), handler, queries);
    }
    void* registerService(std::unique_ptr<IResponseHandler<ServiceDef>>&& handler, const Path& path,
                          const ServiceDef& serviceDef) override
    {
        return note("register " + path.toString() + " " + jsonOf(serviceDef), handler, registrations);
    }
    void* trackService(std::unique_ptr<IResponseHandler<RegistryUpdate>>&& handler, const Path& path,
                       const optional<bool>& includeMetaInfo) override
    {
        const std::string flag = includeMetaInfo ? (*includeMetaInfo ? "true" : "false") : "absent";
        return note("track " + path.toString() + " " + flag, handler, trackings);
    }
    void* explain(std::unique_ptr<IResponseHandler<GenericObject>>&& handler, const Path& path,
                  const std::string& process) override
    {
        return note("explain " + path.toString() + " '" + process + "'", handler, explanations);
    }
    void cancelRequest(void* handle) override
    {
        m_calls.push_back("cancel " + std::to_string(reinterpret_cast<std::uintptr_t>(handle)));
    }

    std::vector<std::unique_ptr<IResponseHandler<Updates>>> queries;
    std::vector<std::unique_ptr<IResponseHandler<ServiceDef>>> registrations;
    std::vector<std::unique_ptr<IResponseHandler<RegistryUpdate>>> trackings;
    std::vector<std::unique_ptr<IResponseHandler<GenericObject>>> explanations;

private:
    template <class Handler>
    void* note(std::string call, Handler& handler, std::vector<Handler>& kept)
    {
        m_calls.push_back(std::move(call));
        kept.push_back(std::move(handler));
        return reinterpret_cast<void*>(++m_lastHandle);
    }

    Lines& m_calls;
    std::uintptr_t m_lastHandle = 100;
};

} // namespace kesa::serviceregistry::test

#endif
