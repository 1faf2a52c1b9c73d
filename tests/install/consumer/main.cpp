// A program of somebody who has only the installed package: it registers a service, finds it and calls it.
#include <kesa/core/response_handlers.h>
#include <kesa/runtime/v02/KesaRuntime.h>

#include <cstdio>
#include <future>
#include <memory>

namespace {

class Greeter : public kesa::IKesaApi {
public:
    void* request(const kesa::Request&, std::unique_ptr<kesa::IResponseHandler<kesa::Response>>&& handler) override
    {
        handler->onNext(kesa::Response(200, kesa::Payload::createFromString("hello", "plain/text")));
        handler->onCompleted();
        return UNDEFINED_REQUEST_HANDLE;
    }
    void cancel(void*) override {}
};

} // namespace

int main()
{
    using kesa::responsehandlers::FuncResponseHandler;
    using kesa::runtime::v02::KesaRuntime;
    using kesa::serviceregistry::ServiceDef;

    if (KesaRuntime::initInstance("consumer")) {
        std::puts("the runtime did not start");
        return 1;
    }
    auto* const runtime = KesaRuntime::getInstance();

    std::promise<std::string> answer;
    const auto fail = [&answer](const kesa::Response& error) {
        answer.set_value("error " + kesa::Response::getErrorMessageWithCode(error));
    };
    auto registration = runtime->registerService(
        "/consumer/greeter", std::make_shared<Greeter>(), ServiceDef::TypeEnum::pex, kesa::GenericObject{},
        std::make_unique<FuncResponseHandler<ServiceDef>>([](const ServiceDef&) { return false; }, fail, [] {}));

    using Result = kesa::optional<kesa::runtime::v02::ResolveResult<std::shared_ptr<kesa::IKesaApi>>>;
    auto resolving = runtime->trackAndResolveService(
        "/consumer/greeter", std::make_unique<FuncResponseHandler<Result>>(
                                 [&answer, fail](const Result& result) {
                                     if (result) {
                                         result->api->request(kesa::Request("retrieve", "/"),
                                                              std::make_unique<FuncResponseHandler<kesa::Response>>(
                                                                  [&answer](const kesa::Response& response) {
                                                                      answer.set_value(kesa::Payload::createStringFrom(
                                                                          response.getPayload()));
                                                                      return false;
                                                                  },
                                                                  fail, [] {}));
                                     }
                                     return false;
                                 },
                                 fail, [] {}));

    const std::string text = answer.get_future().get();
    std::puts(text.c_str());
    resolving.dispose();
    registration.dispose();
    KesaRuntime::shutdown();
    return text == "hello" ? 0 : 1;
}
