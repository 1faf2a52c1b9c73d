// The runtime and the registry are played by the test.
#include "PlayedRuntime.h"

#include <comm/ICallWatch.h>
#include <kesa/core/PayloadConversion.h>
#include <kesa/ease/provide.h>
#include <kesa/serviceregistry/RegistryUpdate.h>
#include <tracing/CapturingSink.h>

namespace {

using namespace kesa;
using namespace kesa::test;
using serviceregistry::RegistryUpdate;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Type = RegistryUpdate::UpdateTypeEnum;

class Provide : public testing::Test {
protected:
    void whenKnown(const std::string& text)
    {
        registration->whenKnown([this, text] { told.push_back(text); });
    }
    void provided() const { runtime.registrator->onNext(PlayedRuntime::record("ipc://me/p")); }
    void refused() const { runtime.registrator->onError(Response::createErrorResponse(409, "taken")); }
    void registryIsThere()
    {
        runtime.added("ipc://kesa-registryd/registry");
        runtime.connected(registry);
    }
    static Response update(Type type, const std::string& locator)
    {
        const auto record = std::make_shared<ServiceDef>(PlayedRuntime::record(locator));
        return {200, *serializer::toPayload(RegistryUpdate(type, record), mimetypes::JSON)};
    }
    /// Knows each service before the request for it returns, as another thread may be told.
    struct Known final : IKesaApi {
        void* request(const Request&, std::unique_ptr<IResponseHandler<Response>>&& handler) noexcept override
        {
            const auto call = std::move(handler);
            call->onNext(update(Type::ADDED, "ipc://me/p"));
            return UNDEFINED_REQUEST_HANDLE;
        }
        void cancel(void*) noexcept override {}
    };
    void registrySays(Type type, const std::string& locator) const
    {
        registry->handlers.back()->onNext(update(type, locator));
    }
    Lines takeTold() { return std::exchange(told, {}); }

    Lines told;
    PlayedRuntime runtime;
    std::shared_ptr<PlayedService> service = std::make_shared<PlayedService>();
    std::shared_ptr<PlayedService> registry = std::make_shared<PlayedService>();
    std::unique_ptr<Registration> registration = provide(runtime, "/p", service, {}, [this](const Response& error) {
        told.push_back(Response::getErrorMessageWithCode(error));
    });
};

// That it is said again after a restart of the registry is shown by the example "hello".
TEST_F(Provide, SaysWhenTheRegistryKnowsIt)
{
    struct Watch final : comm::ICallWatch {
        void tellInside(const char* operation, const std::string& subject, const std::function<void()>& call) override
        {
            calls.push_back(operation + (" " + subject));
            call();
        }
        Lines calls;
        const Scope scope{this};
    } watch;
    whenKnown("known");
    EXPECT_THAT(runtime.take(), ElementsAre("register /p")) << "until it is provided nobody can tell whose it is";
    provided();
    registryIsThere();
    EXPECT_THAT(runtime.take(), ElementsAre("track /registry", "resolve ipc://kesa-registryd/registry"));
    EXPECT_EQ(registry->requests.front().getCommand() + ' ' + registry->requests.front().getPath(), "retrieve /p");
    registrySays(Type::ADDED, "ipc://other/p");
    registrySays(Type::REMOVED, "ipc://other/p");
    EXPECT_THAT(takeTold(), IsEmpty()) << "it was another's";
    registrySays(Type::ADDED, "ipc://me/p");
    EXPECT_THAT(takeTold(), ElementsAre("known"));
    EXPECT_THAT(watch.calls, ElementsAre("onChange /registry", "whenKnown /p")) << "for who names what holds a loop";

    auto other = provide(runtime, "/q", service);
    provided();
    other->whenKnown([this] { told.emplace_back("other"); });
    EXPECT_THAT(runtime.take(), ElementsAre("register /q")) << "the registry is followed once";
    registrySays(Type::ADDED, "ipc://me/p");
    EXPECT_THAT(takeTold(), ElementsAre("other"));
    other.reset();
    EXPECT_EQ(registry->open(), 1U);
    registration.reset();
    EXPECT_EQ(registry->open(), 0U);
    EXPECT_THAT(runtime.take(),
                ElementsAre("unregister /q", "unregister /p", "untrack", "release ipc://kesa-registryd/registry"));
}

TEST_F(Provide, WithdrawsNothingThatWasRefused)
{
    provided();
    whenKnown("known");
    registryIsThere();
    const ::tracing::TraceCapture traces("KESA_EASE");
    refused(); // the registry has it of somebody else
    EXPECT_EQ(registry->open(), 0U);
    whenKnown("never");
    EXPECT_THAT(traces.take(), IsEmpty()) << "the refusal was told";
    registration->end();
    whenKnown("never");
    EXPECT_THAT(traces.take(), ElementsAre(HasSubstr("[whenKnown] a handler for '/p' will hear nothing")));
    registration = provide(runtime, "tv", service);
    refused();
    EXPECT_THAT(traces.take(), ElementsAre(HasSubstr("the registration of 'tv' was refused: 409: taken")))
        << "since nobody hears of it";
    registration.reset();
    EXPECT_THAT(runtime.take(), testing::Not(testing::Contains(testing::StartsWith("unregister"))));
    EXPECT_THAT(takeTold(), ElementsAre("409: taken"));
}

TEST_F(Provide, LeavesItsEndToTheAnswerThatIsOutstanding)
{
    whenKnown("never");
    registration->end();
    auto soon = provide(runtime, "/p", service);
    const auto later = provide(runtime, "/p", service);
    soon->end();
    EXPECT_THAT(runtime.take(), ElementsAre("register /p")) << "this process would be refused for its own";
    const auto before = std::move(runtime.registrator);
    before->onNext(PlayedRuntime::record("ipc://me/p"));
    EXPECT_THAT(runtime.take(), ElementsAre("unregister /p", "register /p")) << "of the one that has not ended";
    registration = provide(runtime, "/q", service);
    registration->end();
    auto next = provide(runtime, "/q", service);
    runtime.whileRegistering = [&] {
        next->end();
        provided();
    };
    std::exchange(runtime.registrator, nullptr)->onError(Response::createErrorResponse(409, "taken"));
    EXPECT_THAT(runtime.take(), ElementsAre("register /q", "register /q", "unregister /q"))
        << "of the one that was answered and has ended before it was registered here";

    next = provide(runtime, "/q", service);
    next->end();
    registration.reset(); // of the same path, long answered
    const auto last = provide(runtime, "/q", service);
    EXPECT_THAT(runtime.take(), ElementsAre("register /q")) << "it waits all the same";
    EXPECT_THAT(takeTold(), IsEmpty());
}

TEST_F(Provide, AsksAnewThroughTheNextRuntime)
{
    provided();
    whenKnown("before");
    registryIsThere();
    runtime.end();
    runtime.take();
    const auto next = provide(runtime, "/q", service); // at the same place
    provided();
    next->whenKnown([this] { told.emplace_back("after"); });
    EXPECT_THAT(runtime.take(), ElementsAre("register /q", "track /registry"));
    registryIsThere();
    registrySays(Type::ADDED, "ipc://me/p");
    EXPECT_THAT(takeTold(), ElementsAre("after"));
}

TEST_F(Provide, AHandlerMayEndIt)
{
    provided();
    registration->whenKnown([this] { registration.reset(); });
    whenKnown("never");
    registryIsThere();
    const auto call = std::move(registry->handlers.front()); // whose call the cancel does not destroy
    call->onNext(update(Type::ADDED, "ipc://me/p"));
    EXPECT_EQ(registration, nullptr);
    EXPECT_EQ(registry->open(), 0U);
    EXPECT_THAT(takeTold(), IsEmpty());

    runtime.registryAtOnce = std::make_shared<Known>();
    registration = provide(runtime, "/p", service);
    provided();
    runtime.registrator.reset(); // which kept it
    registration->whenKnown([this] {
        registration.reset();
        told.emplace_back("dropped");
    });
    EXPECT_THAT(takeTold(), ElementsAre("dropped")) << "inside of whenKnown, which goes on without it";
}

} // namespace
