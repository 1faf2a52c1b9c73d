// The runtime and the registry are played by the test.
#include "PlayedRuntime.h"

#include <kesa/core/PayloadConversion.h>
#include <kesa/ease/provide.h>
#include <kesa/serviceregistry/RegistryUpdate.h>
#include <tracing/CapturingSink.h>

namespace {

using namespace kesa;
using namespace kesa::test;
using serviceregistry::RegistryUpdate;
using testing::ElementsAre;
using testing::IsEmpty;

class Provide : public testing::Test {
protected:
    Provide()
    {
        registration = provide(runtime, "/p", service, {}, [this](const Response& error) {
            told.push_back(Response::getErrorMessageWithCode(error));
        });
    }
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
    void registrySays(RegistryUpdate::UpdateTypeEnum type, const std::string& locator) const
    {
        const auto record = std::make_shared<ServiceDef>(PlayedRuntime::record(locator));
        registry->handlers.back()->onNext(
            Response(200, *serializer::toPayload(RegistryUpdate(type, record), mimetypes::JSON)));
    }
    std::vector<std::string> takeTold() { return std::exchange(told, {}); }

    PlayedRuntime runtime;
    std::shared_ptr<PlayedService> service = std::make_shared<PlayedService>();
    std::shared_ptr<PlayedService> registry = std::make_shared<PlayedService>();
    std::unique_ptr<Registration> registration;
    std::vector<std::string> told;
};

TEST_F(Provide, SaysWhenTheRegistryKnowsIt)
{
    EXPECT_THAT(runtime.take(), ElementsAre("register /p"));
    whenKnown("known");
    EXPECT_THAT(runtime.take(), IsEmpty()) << "it is not provided yet, so whose it is can not be told";
    provided();
    EXPECT_THAT(runtime.take(), ElementsAre("track /registry"));
    registryIsThere();
    ASSERT_EQ(registry->requests.size(), 1U);
    EXPECT_EQ(registry->requests.front().getCommand() + ' ' + registry->requests.front().getPath(), "retrieve /p");
    EXPECT_THAT(takeTold(), IsEmpty());

    registrySays(RegistryUpdate::UpdateTypeEnum::ADDED, "ipc://other/p");
    registrySays(RegistryUpdate::UpdateTypeEnum::REMOVED, "ipc://other/p");
    EXPECT_THAT(takeTold(), IsEmpty()) << "it was another's";
    registrySays(RegistryUpdate::UpdateTypeEnum::ADDED, "ipc://me/p");
    EXPECT_THAT(takeTold(), ElementsAre("known"));
    runtime.lost();
    runtime.connected(registry);
    EXPECT_THAT(takeTold(), IsEmpty());
    registrySays(RegistryUpdate::UpdateTypeEnum::ADDED, "ipc://me/p");
    EXPECT_THAT(takeTold(), ElementsAre("known")) << "again";
    whenKnown("late");
    registrySays(RegistryUpdate::UpdateTypeEnum::ADDED, "ipc://me/p");
    EXPECT_THAT(takeTold(), ElementsAre("late"));

    runtime.take();
    auto other = provide(runtime, "/q", service);
    provided();
    other->whenKnown([] {});
    EXPECT_THAT(runtime.take(), ElementsAre("register /q")) << "the registry is followed once";
    EXPECT_EQ(registry->open(), 3U);
    other.reset();
    EXPECT_THAT(runtime.take(), ElementsAre("unregister /q"));
    EXPECT_EQ(registry->open(), 2U);
    registration.reset();
    EXPECT_THAT(runtime.take(), ElementsAre("unregister /p", "untrack", "release ipc://kesa-registryd/registry"));
    EXPECT_EQ(registry->open(), 0U);
}

TEST_F(Provide, WithdrawsNothingThatWasRefused)
{
    provided();
    whenKnown("known");
    registryIsThere();
    refused(); // the registry has it of somebody else
    EXPECT_THAT(takeTold(), ElementsAre("409: taken"));
    EXPECT_EQ(registry->open(), 0U);
    const ::tracing::TraceCapture traces("KESA_EASE");
    whenKnown("never");
    EXPECT_THAT(traces.take(), IsEmpty()) << "the refusal was told";
    runtime.take();
    registration->end();
    whenKnown("never");
    EXPECT_THAT(traces.take(), ElementsAre(testing::HasSubstr("[whenKnown] a handler for '/p' will hear nothing")));
    registration.reset();
    EXPECT_THAT(runtime.take(), IsEmpty());
    EXPECT_THAT(takeTold(), IsEmpty());
}

TEST_F(Provide, LeavesItsEndToTheAnswerThatIsOutstanding)
{
    whenKnown("never");
    registration->end();
    EXPECT_THAT(runtime.take(), ElementsAre("register /p"));
    auto soon = provide(runtime, "/p", service);
    const auto later = provide(runtime, "/p", service);
    soon->end();
    EXPECT_THAT(runtime.take(), IsEmpty()) << "this process would be refused for its own";
    const auto before = std::move(runtime.registrator);
    before->onNext(PlayedRuntime::record("ipc://me/p"));
    EXPECT_THAT(runtime.take(), ElementsAre("unregister /p", "register /p")) << "of the one that has not ended";

    registration = provide(runtime, "/q", service);
    registration->end();
    refused();
    EXPECT_THAT(runtime.take(), ElementsAre("register /q"));
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
    registrySays(RegistryUpdate::UpdateTypeEnum::ADDED, "ipc://me/p");
    EXPECT_THAT(takeTold(), ElementsAre("after"));
}

TEST_F(Provide, AHandlerMayEndIt)
{
    provided();
    registration->whenKnown([this] { registration.reset(); });
    whenKnown("never");
    registryIsThere();
    const auto call = std::move(registry->handlers.front()); // whose call the cancel does not destroy
    const auto record = std::make_shared<ServiceDef>(PlayedRuntime::record("ipc://me/p"));
    call->onNext(Response(
        200, *serializer::toPayload(RegistryUpdate(RegistryUpdate::UpdateTypeEnum::ADDED, record), mimetypes::JSON)));
    EXPECT_EQ(registration, nullptr);
    EXPECT_EQ(registry->open(), 0U);
    EXPECT_THAT(takeTold(), IsEmpty());
}

TEST_F(Provide, TracesARefusalThatNobodyHears)
{
    const ::tracing::TraceCapture traces("KESA_EASE");
    registration = provide(runtime, "tv", service);
    runtime.registrator->onError(Response::createErrorResponse(400, "a service path begins with '/'"));
    EXPECT_THAT(traces.take(), ElementsAre(testing::HasSubstr(
                                   "the registration of 'tv' was refused: 400: a service path begins with '/'")));
}

TEST_F(Provide, WithoutARuntimeIsRefused)
{
    std::string why;
    registration =
        provide("/p", service, {}, [&why](const Response& e) { why = Response::getErrorMessageWithCode(e); });
    EXPECT_THAT(why, testing::StartsWith("503: this process has no runtime; make a kesa::Runtime"));
    whenKnown("never");
}

} // namespace
