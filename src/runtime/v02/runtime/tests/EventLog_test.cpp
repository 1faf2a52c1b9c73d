// The lines of the event log, character by character, and what happens when a record cannot be written.
#include <runtime/v02/runtime/EventLog.h>

#include <obr/ErrorOutput.h>
#include <obr/ErrorStorage.h>
#include <obr/errors.h>
#include <tracing/Sink.h>

#include <gtest/gtest.h>

namespace kesa::runtime::v02 {
namespace {

class Lines final : public tracing::ISink {
public:
    void write(const tracing::Line& line) override
    {
        EXPECT_EQ(line.channel, "kesa_DataModel");
        EXPECT_EQ(line.severity, 2);
        last = std::string(line.text);
    }
    std::string last;
};

class EventLogTest : public testing::Test {
protected:
    EventLogTest() { tracing::setEventLogSink(m_lines); }
    ~EventLogTest() override { tracing::setEventLogSink(nullptr); }

    std::string last() { return std::exchange(m_lines->last, {}); }

    std::shared_ptr<Lines> m_lines = std::make_shared<Lines>();
    const ServiceDef m_service{Path("/a"), ServiceDef::TypeEnum::lomo, {"1.0.0"}, {url("ipc://p/a")}};
    const std::string m_json = R"({"path":"/a","type":"lomo","versions":["1.0.0"],"locators":["ipc://p/a"]})";
};

TEST_F(EventLogTest, writesEachLineAsItIsDocumented)
{
    const std::string on = "p\"q"; // nothing escapes it
    eventlog::runtimeStart(on);
    EXPECT_EQ(last(), R"({"event":"runtime", "info":"start", "on":"p"q"})");
    eventlog::runtimeStop(on);
    EXPECT_EQ(last(), R"({"event":"runtime", "info":"stop", "on":"p"q"})");
    eventlog::runtimeError(on, "why");
    EXPECT_EQ(last(), R"({"event":"runtime", "info":"error", "on":"p"q", "error":"why"})");

    eventlog::registrationRegister("p", m_service);
    EXPECT_EQ(last(), R"({"event":"registration", "info":"register", "on":"p", "serviceDef":)" + m_json + "}");
    eventlog::registrationSuccess("p", m_service);
    EXPECT_EQ(last(), R"({"event":"registration", "info":"success", "on":"p", "serviceDef":)" + m_json + "}");
    eventlog::registrationError("p", m_service, "why");
    EXPECT_EQ(last(),
              R"({"event":"registration", "info":"error", "on":"p", "serviceDef":)" + m_json + R"(, "error":"why"})");
    eventlog::registrationUnregister("p", m_service);
    EXPECT_EQ(last(), R"({"event":"registration", "info":"unregister", "on":"p", "serviceDef":)" + m_json + "}");

    eventlog::trackingStart("p", "/a");
    EXPECT_EQ(last(), R"({"event":"tracking", "info":"start", "on":"p", "servicePath":"/a"})");
    eventlog::trackingUpdate("p", {ResourceUpdateType::eREMOVED, m_service});
    EXPECT_EQ(last(), R"({"event":"tracking", "info":"update", "on":"p", "updateType":"REMOVED", "serviceDef":)" +
                          m_json + "}");
    eventlog::trackingUpdate("p", {static_cast<ResourceUpdateType>(7), m_service});
    EXPECT_EQ(last(), R"({"event":"tracking", "info":"update", "on":"p", "updateType":"unknown", "serviceDef":)" +
                          m_json + "}");
    eventlog::trackingStop("p", "/a", eventlog::CausedBy::eUSER);
    EXPECT_EQ(last(), R"({"event":"tracking", "info":"stop", "on":"p", "servicePath":"/a", "caused-by":"USER"})");

    const Query query("/a/**");
    eventlog::queryStart("p", query);
    EXPECT_EQ(last(), R"({"event":"query", "info":"start", "on":"p", "query":{"pattern":"/a/**"}})");
    eventlog::queryUpdate("p", query, {ResourceUpdateType::eADDED, m_service});
    EXPECT_EQ(last(), R"({"event":"query", "info":"update", "on":"p", "query":{"pattern":"/a/**"}, )"
                      R"("updateType":"ADDED", "serviceDef":)" +
                          m_json + "}");
    eventlog::queryStop("p", query, eventlog::CausedBy::eERROR);
    EXPECT_EQ(last(),
              R"({"event":"query", "info":"stop", "on":"p", "query":{"pattern":"/a/**"}, "caused-by":"ERROR"})");

    const url uri("ipc://p/a");
    const std::string place = R"("on":"p", "servicePath":"/a", "uri":"ipc://p/a")";
    eventlog::connectStart("p", uri);
    EXPECT_EQ(last(), R"({"event":"connect", "info":"start", )" + place + "}");
    eventlog::connectServiceConnected("p", uri);
    EXPECT_EQ(last(), R"({"event":"connect", "info":"serviceConnected", )" + place + "}");
    eventlog::connectServiceLost("p", uri);
    EXPECT_EQ(last(), R"({"event":"connect", "info":"serviceLost", )" + place + "}");
    eventlog::connectError("p", uri, Response::createErrorResponse(503, "gone"));
    EXPECT_EQ(last(), R"({"event":"connect", "info":"error", )" + place + R"(, "error":"503: gone"})");
    eventlog::connectStop("p", uri);
    EXPECT_EQ(last(), R"({"event":"connect", "info":"stop", )" + place + "}");
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

    tracing::setEventLogSink(nullptr);
    eventlog::runtimeStart("p");
    EXPECT_EQ(last(), "");
}

} // namespace
} // namespace kesa::runtime::v02
