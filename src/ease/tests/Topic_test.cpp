#include <NotingHandler.h>
#include <json.h>
#include <kesa/GenericObject.h>
#include <kesa/ease/Property.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/Topic.h>
#include <kesa/ease/get.h>
#include <kesa/ease/resources.h>
#include <kesa/headers.h>
#include <kesa/responsesemantics.h>
#include <kesa/servicecomp.h>
#include <obr/GlobalErrorHandler.h>
#include <tracing/CapturingSink.h>

#include <SimulatedTime.h>
#include <future>
#include <thread>

namespace {

using namespace kesa;
using kesa::test::SimulatedTime;
using testing::ElementsAre;

class Values : public testing::Test {
protected:
    std::string ask(const std::string& command, const std::string& body = {}, const std::string& path = "/v")
    {
        const Payload payload = body.empty() ? Payload() : test::json(body);
        const GetResult result = get(service, Request(command, path, payload), std::chrono::seconds(1));
        return result ? std::string(result.response->getPayload().text()) : result.error;
    }
    void* follow()
    {
        Request request("retrieve", "/v");
        headers::appendResponseSemantic(request, responsesemantics::PERSISTENT_STREAM);
        return service.request(request, test::noteTexts(told));
    }

    ResourceHandler service;
    std::vector<std::string> told;
};

TEST_F(Values, ATopicTellsItsLastValueAndEachOneAfterIt)
{
    auto topic = std::make_unique<Topic<GenericObject>>();
    topic->serve(service, "/v");
    EXPECT_EQ(ask("retrieve"), "404: there is no value yet");
    void* const first = follow();
    topic->publish({{"a", 1}});
    EXPECT_EQ(ask("retrieve"), R"({"a":1})");
    follow();
    EXPECT_EQ(topic->followers(), 2U);
    service.cancel(first);
    for (int i = 0; i < 1000; ++i) {
        service.cancel(follow());
    }
    EXPECT_LT(topic->followers(), 20U) << "also without a value, those that have gone are not kept";
    told.resize(2);
    topic->publish({{"a", 1}});
    EXPECT_EQ(topic->followers(), 1U);
    topic.reset();
    EXPECT_THAT(told, ElementsAre(R"({"a":1})", R"({"a":1})", R"({"a":1})", "503: the value has ended", "~"));
    EXPECT_EQ(ask("retrieve"), "503: the value has ended");
}

TEST_F(Values, EachFollowerHasItsFormat)
{
    servicecomp::overrideMimeTypeFunc([](const Request& request) {
        return request.getMimeTypeHeader().stringView().empty() ? "application/json" : "plain/text";
    });
    Topic<std::string> topic;
    topic.serve(service, "/v");
    follow();
    Request other("retrieve", "/v");
    other.setMimeType("plain/text"); // which has no structure
    topic.publish("x");
    EXPECT_EQ(get(service, other, std::chrono::seconds(1)).status, 500);
    topic.publish("no UTF-8: \xff");
    follow();
    topic.publish("y");
    EXPECT_THAT(told, ElementsAre("\"x\"", "\"y\"", "\"y\"")) << "what has no form is left out";
    servicecomp::overrideMimeTypeFunc({});
}

struct Fickle {
    int value = 0;
    bool throws = false;
};
bool serialize(serializer::IStructuredSerializer& serializer, const Fickle& fickle)
{
    if (fickle.throws) {
        throw std::runtime_error("fickle");
    }
    return serializer::serialize(serializer, fickle.value);
}

TEST_F(Values, AValueThatCannotBeWrittenLeavesAllAsItWas)
{
    Topic<Fickle> topic;
    topic.serve(service, "/v");
    void* const first = follow();
    follow();
    topic.publish({1});
    service.cancel(first);
    EXPECT_THROW(topic.publish({2, true}), std::runtime_error);
    EXPECT_EQ(ask("retrieve"), "1");
    topic.publish({3});
    EXPECT_EQ(topic.followers(), 1U);
    EXPECT_THAT(told, ElementsAre("1", "1", "~", "3"));
}

TEST_F(Values, TheirRoutesSayThatTheyAreStreams)
{
    Topic<double> topic;
    topic.serve(service, "/t");
    Property<int> property(50);
    property.serveWritable(service, "/v", about("percent").answer(R"({"type":"integer"})"));
    EXPECT_EQ(
        ask("retrieve", {}, std::string(resources::PATH)),
        R"([{"answers":"stream","command":"retrieve","resource":"/t"},)"
        R"({"answer":{"type":"integer"},"answers":"stream","command":"retrieve","resource":"/v","text":"percent"},)"
        R"({"answers":"single","body":{"type":"integer"},"command":"update","resource":"/v","text":"percent"}])");
}

TEST_F(Values, APropertyTellsChangesOnly)
{
    auto property =
        std::make_unique<Property<int>>(50, [this](const int& v) { told.push_back("=" + std::to_string(v)); });
    property->serveWritable(service, "/v");
    follow();
    property->set(50);
    property->set(60);
    EXPECT_EQ(ask("retrieve"), "60");
    EXPECT_EQ(ask("update", "70"), "");
    EXPECT_EQ(property->get(), 70);
    EXPECT_EQ(ask("update", "70"), "");
    EXPECT_EQ(ask("update", R"("loud")"), "400: the body can not be read: a number is expected");
    property.reset();
    const ::tracing::TraceCapture traces("KESA_EASE");
    EXPECT_EQ(ask("update", "80"), "503: the value has ended");
    EXPECT_EQ(ask("retrieve"), "503: the value has ended");
    EXPECT_THAT(traces.take(), ElementsAre(testing::HasSubstr("[answer] 'update /v' asks for a value whose")));
    EXPECT_THAT(told, ElementsAre("50", "60", "=60", "70", "=70", "503: the value has ended", "~"));
}

TEST_F(Values, APropertyMayBeSetOrDroppedWhereItsChangeIsTold)
{
    std::unique_ptr<Property<int>> property;
    property = std::make_unique<Property<int>>(50, [&](const int& v) {
        if (v > 100) {
            property->set(100);
        } else if (v == 0) {
            property.reset();
        }
        told.push_back("=" + std::to_string(v));
    });
    property->serveWritable(service, "/v");
    follow();
    EXPECT_EQ(ask("update", "700"), "");
    EXPECT_THAT(told, ElementsAre("50", "700", "100", "=700", "=100"));
    told.clear();
    property->set(0);
    EXPECT_EQ(property, nullptr);
    EXPECT_THAT(told, ElementsAre("0", "503: the value has ended", "~", "=0"));
}

TEST_F(Values, APropertyRefusesWhatItsCheckThrowsAndNothingElse)
{
    const auto hear = [this](const int& v) {
        told.push_back("=" + std::to_string(v));
        throw std::runtime_error("no mixer");
    };
    Property<int> property(1, hear, [&](const int& v) {
        if (v < property.get()) {
            throw RequestError(422, "it only rises");
        }
    });
    property.serveWritable(service, "/v");
    follow();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(ask("update", "0"), "422: it only rises");
    }
    EXPECT_THROW(property.set(0), RequestError);
    EXPECT_EQ(property.get(), 1);
    EXPECT_EQ(ask("update", "1"), "") << "what it is already is refused by nobody";
    const ::tracing::TraceCapture traces("KESA_EASE");
    EXPECT_EQ(ask("update", "2"), "");
    EXPECT_EQ(ask("retrieve"), "2");
    EXPECT_THAT(traces.take(), ElementsAre(testing::HasSubstr("onChange has thrown, and the value stays: no mixer")));
    EXPECT_THAT(told, ElementsAre("1", "2", "=2"));
}

class ChangesOnALoop : public SimulatedTime, public testing::Test {};

// An "update" brought the I/O loop to the changes of a busy thread, and it told those and did nothing else any more.
TEST_F(ChangesOnALoop, AreToldOneATurnBeyondItsOwn)
{
    const auto loop = comm::Scheduler::current().makeReactor("io");
    std::vector<std::string> told;
    Property<int> property(0, [&](const int& v) {
        told.push_back("=" + std::to_string(v));
        if (v % 10 < 3) {
            property.set(v + 1);
        }
    });
    loop->post([&] { property.set(10); });
    loop->post([&] { told.emplace_back("another"); });
    scheduler.runReady();
    EXPECT_THAT(told, ElementsAre("=10", "another", "=11", "=12", "=13"));
    loop->post([&] { property.set(20); });
    loop->stop();
    scheduler.runReady();
    EXPECT_THAT(told, ElementsAre("=10", "another", "=11", "=12", "=13", "=20", "=21", "=22", "=23")) << "none is lost";
}

TEST_F(Values, APropertyThatIsSetInItsOwnCheckSaysSo)
{
    std::vector<std::string> asserted;
    const auto before =
        obr::GlobalErrorHandler::setHandler([&](const auto& report) { asserted.emplace_back(report.message); });
    Property<int> property(1, {}, [&](const int&) { property.set(5); });
    property.serveWritable(service, "/v");
    EXPECT_EQ(ask("update", "2").substr(0, 66), "500: a kesa::Property is changed from inside its own 'check', or f");
    obr::GlobalErrorHandler::setHandler(before);
    EXPECT_EQ(asserted.size(), 1);
    EXPECT_EQ(property.get(), 1);
}

/// Each is set by the other's `onChange` while that one's is running in another thread.
TEST_F(Values, PropertiesMaySetEachOtherInTwoThreads)
{
    struct One {
        std::promise<void> isTelling;
        std::vector<int> heard; ///< one call at a time
        std::unique_ptr<Property<int>> property;
    } a;
    One b;
    const auto setsOther = [](One& own, One& other) {
        return [&](const int& value) {
            own.heard.push_back(value);
            if (own.heard.size() == 1) {
                own.isTelling.set_value();
                other.isTelling.get_future().wait();
                other.property->set(value);
            }
        };
    };
    a.property = std::make_unique<Property<int>>(0, setsOther(a, b));
    b.property = std::make_unique<Property<int>>(0, setsOther(b, a));
    std::thread thread([&] { a.property->set(1); });
    b.property->set(2);
    thread.join();
    EXPECT_THAT(a.heard, ElementsAre(1, 2));
    EXPECT_THAT(b.heard, ElementsAre(2, 1));
}

} // namespace
