#ifndef KESA_SERVICEREGISTRY_PROTOCOL_TESTS_FAKES_H
#define KESA_SERVICEREGISTRY_PROTOCOL_TESTS_FAKES_H

#include <kesa/IKesaApi.h>
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

using Lines = std::vector<std::string>;
using Updates = std::vector<RegistryUpdate>;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

inline void* handleOf(std::uintptr_t number)
{
    return reinterpret_cast<void*>(number);
}

template <class T>
std::string jsonOf(const T& value)
{
    return std::string(serializer::toPayload(value, mimetypes::JSON)->text());
}
inline std::string jsonOf(const Response& response)
{
    return std::to_string(response.getStatus()) + " " + std::string(response.getPayload().text());
}

inline ServiceDef serviceAt(const std::string& path)
{
    return ServiceDef(Path(path), ServiceDef::TypeEnum::pex, {}, {});
}
inline RegistryUpdate added(const std::string& path)
{
    return RegistryUpdate(RegistryUpdate::UpdateTypeEnum::ADDED, std::make_shared<ServiceDef>(serviceAt(path)));
}
inline std::string jsonOfService(const std::string& path)
{
    return R"({"path":")" + path + R"(","type":"pex","versions":[],"locators":[]})";
}
inline std::string jsonOfAdded(const std::string& path)
{
    return R"({"updateType":"ADDED","element":)" + jsonOfService(path) + "}";
}

/// Notes each call, and its own end as "gone".
template <class T>
class NotingHandler final : public IResponseHandler<T> {
public:
    explicit NotingHandler(Lines& lines) : m_lines(lines) {}
    ~NotingHandler() override { m_lines.emplace_back("gone"); }
    bool onNext(const T& value) override
    {
        m_lines.push_back(jsonOf(value));
        return false;
    }
    void onError(const Response& error) override
    {
        m_lines.push_back("error " + Response::getErrorMessageWithCode(error));
    }
    void onCompleted() override { m_lines.emplace_back("completed"); }

private:
    Lines& m_lines;
};

/// Keeps what is sent, and lets the test answer.
class FakeApi final : public IKesaApi {
public:
    struct Sent {
        Request request;
        std::unique_ptr<IResponseHandler<Response>> answers;
    };
    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        sent.push_back({request, std::move(handler)});
        return handleOf(sent.size());
    }
    void cancel(void* handle) override { cancelled.push_back(handle); }

    std::vector<Sent> sent;
    std::vector<void*> cancelled;
};

/// Notes how it is called, keeps the handlers, and lets the test answer.
class FakeRegistry final : public IServiceRegistry {
public:
    explicit FakeRegistry(Lines& calls) : m_calls(calls) {}
    ~FakeRegistry() override { m_calls.emplace_back("gone"); }

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
        return handleOf(++m_lastHandle);
    }

    Lines& m_calls;
    std::uintptr_t m_lastHandle = 100;
};

} // namespace kesa::serviceregistry::test

#endif
