#include <kesa/ease/resources.h>

#include <kesa/GenericObject.h>
#include <kesa/IKesaApi.h>
#include <kesa/commands.h>
#include <kesa/core/PayloadConversion.h>
#include <kesa/mimetypes.h>
#include <obr/ErrorStorage.h>
#include <tracing/Channel.h>

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>

namespace kesa::resources {

namespace {

using util::config::Value;

Value asValue(const Resource& resource)
{
    GenericObject object{{"resource", resource.path},
                         {"command", resource.command},
                         {"answers", resource.info.isStream() ? "stream" : "single"}};
    const auto addIfGiven = [&object](std::string_view name, const Value& value) {
        if (value.isDefined()) {
            object.set(name, value);
        }
    };
    addIfGiven("text", resource.info.text().empty() ? Value() : Value(resource.info.text()));
    addIfGiven("body", resource.info.bodySchema());
    addIfGiven("answer", resource.info.answerSchema());
    return object;
}

/// One that cannot be told (a text that is no UTF-8, a schema that is nested too deep) hides no other.
Value::Array thoseWithAForm(const Value::Array& list)
{
    Value::Array left;
    for (const Value& resource : list) {
        obr::ErrorStorage::ack();
        if (serializer::toPayload(Value(Value::Array{resource}), mimetypes::JSON)) {
            left.push_back(resource);
        } else {
            static const ::tracing::Channel channel("KESA_EASE");
            KESA_TRACE_TEXT(channel, 3,
                            fmt::format("[resources] '{} {}' is left out of what the service says of itself: {}",
                                        resource["command"].stringView(), resource["resource"].stringView(),
                                        obr::ErrorStorage::reason()));
        }
    }
    obr::ErrorStorage::ack();
    return left;
}

} // namespace

bool areAskedBy(const Request& request) noexcept
{
    return request.getPath() == PATH && request.getCommand() == commands::RETRIEVE;
}

optional<Payload> describe(std::vector<Resource> resources)
{
    std::sort(resources.begin(), resources.end(), [](const Resource& a, const Resource& b) {
        return std::tie(a.path, a.command) < std::tie(b.path, b.command);
    });
    Value::Array list;
    for (const Resource& resource : resources) {
        list.push_back(asValue(resource));
    }
    obr::ErrorStorage::ack();
    auto all = serializer::toPayload(Value(list), mimetypes::JSON);
    return all ? std::move(all) : serializer::toPayload(Value(thoseWithAForm(list)), mimetypes::JSON);
}

void* tell(IResponseHandler<Response>& handler, std::vector<Resource> resources)
{
    if (auto list = describe(std::move(resources))) {
        handler.onNext(Response(200, std::move(*list)));
        handler.onCompleted();
    } else {
        handler.onError(Response::createErrorResponse(500, obr::ErrorStorage::reason()));
    }
    return IKesaApi::UNDEFINED_REQUEST_HANDLE;
}

} // namespace kesa::resources
