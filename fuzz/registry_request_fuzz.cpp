// Any request to a registry: an error with a reason, or a call of the registry with what was asked, whose answer comes
// back readable. Either way no error stays pending. Input: command, path, wanted format and format of the body, each
// ended by a zero byte, and the body.
#include "require.h"

#include <kesa/core/PayloadConversion.h>
#include <kesa/serviceregistry/ServiceRegistryService.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace kesa;
using namespace kesa::serviceregistry;

/// Answers a request with what it asked for, and forgets it.
class EchoRegistry final : public IServiceRegistry {
public:
    explicit EchoRegistry(const Request& request) : m_request(request) {}

    void* queryRegistry(std::unique_ptr<IResponseHandler<std::vector<RegistryUpdate>>>&& handler,
                        const Query& query) override
    {
        const auto asked = std::make_shared<ServiceDef>();
        asked->hostDomain = query.pattern;
        asked->metainfo = query.metadata;
        require(!handler->onNext({RegistryUpdate(RegistryUpdate::UpdateTypeEnum::ADDED, asked)}));
        return this;
    }
    void* registerService(std::unique_ptr<IResponseHandler<ServiceDef>>&& handler, const Path& path,
                          const ServiceDef& serviceDef) override
    {
        require(path.toString() == m_request.getPath());
        require(!handler->onNext(serviceDef));
        return this;
    }
    void* trackService(std::unique_ptr<IResponseHandler<RegistryUpdate>>&& handler, const Path& path,
                       const optional<bool>& /*includeMetaInfo*/) override
    {
        require(path.toString() == m_request.getPath() && path.toString() != ServiceRegistryService::ROOT);
        handler->onCompleted();
        return this;
    }
    void cancelRequest(void* /*handle*/) override {}

private:
    const Request& m_request;
};

struct Heard {
    std::vector<Response> answers;
    std::vector<Response> errors;
};

class Client final : public IResponseHandler<Response> {
public:
    explicit Client(Heard& heard) : m_heard(heard) {}
    bool onNext(const Response& response) override
    {
        m_heard.answers.push_back(response);
        return false;
    }
    void onError(const Response& error) override { m_heard.errors.push_back(error); }
    void onCompleted() override {}

private:
    Heard& m_heard;
};

void checkAnswer(const Request& request, const Response& answer)
{
    require(answer.getStatus() == 200);
    if (request.getPath() == ServiceRegistryService::ROOT && request.getCommand() == "retrieve") {
        const auto updates = serializer::fromPayload<std::vector<RegistryUpdate>>(answer.getPayload(), "");
        require(updates && updates->size() == 1);
    } else {
        require(serializer::fromPayload<ServiceDef>(answer.getPayload(), "").has_value());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto* const end = data + size;
    const auto field = [&] {
        const auto* const zero = std::find(data, end, 0);
        std::string text(data, zero);
        data = zero == end ? end : zero + 1;
        return text;
    };
    std::string command = field();
    std::string path = field();
    const std::string wanted = field();
    const std::string format = field();
    Request request(std::move(command), std::move(path), Payload::createFromString(std::string(data, end), format));
    request.setMimeType(wanted);

    EchoRegistry registry(request);
    ServiceRegistryService service(&registry);
    Heard heard;
    void* const handle = service.actionRequest(request, std::make_unique<Client>(heard), "/");
    require(!obr::ErrorStorage::isError());
    require(heard.errors.size() == (handle == nullptr ? 1 : 0));
    for (const Response& error : heard.errors) {
        require((error.getStatus() == 400 || error.getStatus() == 404) && !error.getErrorMessage().empty());
    }
    for (const Response& answer : heard.answers) {
        checkAnswer(request, answer);
    }
    return 0;
}
