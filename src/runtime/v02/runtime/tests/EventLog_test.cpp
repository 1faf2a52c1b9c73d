// The lines of the event log, character by character, and what happens when a record cannot be written.
#include <runtime/v02/runtime/EventLog.h>

#include <obr/ErrorOutput.h>
#include <obr/ErrorStorage.h>
#include <obr/errors.h>
#include <tracing/CapturingSink.h>

#include <gtest/gtest.h>

namespace kesa::runtime::v02 {
namespace {

class EventLogTest : public testing::Test {
protected:
    EventLogTest() { tracing::setEventLogSink(m_lines); }
    ~EventLogTest() override { tracing::setEventLogSink(nullptr); }

    std::string last()
    {
        const std::string line = m_lines->take().back();
        EXPECT_EQ(line.substr(0, 2), "2 ");
        return line.substr(2);
    }

    std::shared_ptr<tracing::CapturingSink> m_lines = std::make_shared<tracing::CapturingSink>("kesa_DataModel");
};

TEST_F(EventLogTest, writesEachLineAsItIsDocumented)
{
    using namespace eventlog;
    const ServiceDef service(Path("/a"), ServiceDef::TypeEnum::lomo, {"1.0.0"}, {url("ipc://p/a")});
    const Query query("/a/**");
    const url uri("ipc://p/a");
    const std::string json =
        R"("serviceDef":{"path":"/a","type":"lomo","versions":["1.0.0"],"locators":["ipc://p/a"]})";
    const std::string asked = R"("query":{"pattern":"/a/**"}, )";
    const auto update = [&](int type) { return ServiceUpdate{static_cast<ResourceUpdateType>(type), service}; };
    const struct {
        std::function<void()> write;
        std::string event, info, rest;
    } lines[] = {
        {[&] { runtimeStart("p"); }, "runtime", "start", ""},
        {[&] { runtimeStop("p"); }, "runtime", "stop", ""},
        {[&] { runtimeError("p", "why"); }, "runtime", "error", R"("error":"why")"},
        {[&] { registrationRegister("p", service); }, "registration", "register", json},
        {[&] { registrationSuccess("p", service); }, "registration", "success", json},
        {[&] { registrationError("p", service, "why"); }, "registration", "error", json + R"(, "error":"why")"},
        {[&] { registrationUnregister("p", service); }, "registration", "unregister", json},
        {[&] { trackingStart("p", "/a"); }, "tracking", "start", R"("servicePath":"/a")"},
        {[&] { trackingUpdate("p", update(0)); }, "tracking", "update", R"("updateType":"ADDED", )" + json},
        {[&] { trackingUpdate("p", update(2)); }, "tracking", "update", R"("updateType":"REMOVED", )" + json},
        {[&] { trackingUpdate("p", update(7)); }, "tracking", "update", R"("updateType":"unknown", )" + json},
        {[&] { trackingStop("p", "/a", CausedBy::eUSER); }, "tracking", "stop",
         R"("servicePath":"/a", "caused-by":"USER")"},
        {[&] { queryStart("p", query); }, "query", "start", R"("query":{"pattern":"/a/**"})"},
        {[&] { queryUpdate("p", query, update(0)); }, "query", "update", asked + R"("updateType":"ADDED", )" + json},
        {[&] { queryStop("p", query, CausedBy::eERROR); }, "query", "stop", asked + R"("caused-by":"ERROR")"},
        {[&] { connectStart("p", uri); }, "connect", "start", R"("servicePath":"/a", "uri":"ipc://p/a")"},
        {[&] { connectServiceConnected("p", uri); }, "connect", "serviceConnected",
         R"("servicePath":"/a", "uri":"ipc://p/a")"},
        {[&] { connectServiceLost("p", uri); }, "connect", "serviceLost", R"("servicePath":"/a", "uri":"ipc://p/a")"},
        {[&] { connectError("p", uri, Response::createErrorResponse(503, "gone")); }, "connect", "error",
         R"("servicePath":"/a", "uri":"ipc://p/a", "error":"503: gone")"},
        {[&] { connectStop("p", uri); }, "connect", "stop", R"("servicePath":"/a", "uri":"ipc://p/a")"},
    };
    for (const auto& [write, event, info, rest] : lines) {
        write();
        EXPECT_EQ(last(), R"({"event":")" + event + R"(", "info":")" + info + R"(", "on":"p")" +
                              (rest.empty() ? "" : ", " + rest) + "}");
    }
    runtimeStart("p\"q"); // nothing escapes it
    EXPECT_EQ(last(), R"({"event":"runtime", "info":"start", "on":"p"q"})");
}

TEST_F(EventLogTest, aRecordThatCannotBeWrittenDoesNotStopTheLine)
{
    obr::ErrorStorage::ack();
    eventlog::registrationRegister("p", ServiceDef(Path("/\xff"), ServiceDef::TypeEnum::pex, {}, {}));
    EXPECT_EQ(last(), R"({"event":"registration", "info":"register", "on":"p", )"
                      R"("serviceDef":ServiceDef serialization failed})");
    EXPECT_FALSE(obr::ErrorStorage::isError());

    obr::ErrorOutput(__FILE__, __LINE__)(obr::errors::Error, obr::errors::TEXT, "of the caller");
    eventlog::queryStart("p", Query("\xff"));
    EXPECT_EQ(last(), R"({"event":"query", "info":"start", "on":"p", "query":Query serialization failed})");
    EXPECT_EQ(obr::ErrorStorage::reason(), "of the caller");
    obr::ErrorStorage::ack();
}

} // namespace
} // namespace kesa::runtime::v02
