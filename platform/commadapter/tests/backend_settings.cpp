// The "comm" member of the configuration document: what is wrong is named and left out, the rest applies.

#include "backend/readCommSettings.h"

#include <kesa/commadapter/checkCommSettings.h>
#include <util/config/JSONParser.h>

#include <gmock/gmock.h>

namespace kesa::commadapter::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

util::config::Value parseComm(std::string_view text)
{
    util::config::Value value;
    EXPECT_FALSE(util::config::JSONParser().parseString(text, value));
    return value;
}

TEST(BackendSettings, GoodMembersApply)
{
    std::vector<std::string> complaints;
    const CommSettings settings =
        readCommSettings(parseComm(R"({"run_dir": "/tmp/run", "socket_mode": "0600", "socket_group": "kesa",
                  "routes": {"/registry": "ipc://kesa-registryd/registry"}, "max_message_bytes": 1048576,
                  "send_queue_bytes": 131072, "heartbeat_ms": 250})"),
                         complaints);
    EXPECT_THAT(complaints, IsEmpty());
    EXPECT_EQ(settings.runDir, "/tmp/run");
    EXPECT_EQ(settings.socketMode, 0600U);
    EXPECT_EQ(settings.socketGroup, "kesa");
    EXPECT_EQ(settings.routes.at("/registry"), "ipc://kesa-registryd/registry");
    EXPECT_EQ(settings.maxMessageBytes, 1048576U);
    EXPECT_EQ(settings.sendQueueBytes, 131072U);
    EXPECT_EQ(settings.heartbeat, 250 * comm::MILLISECOND);
    EXPECT_THAT(checkCommSettings(util::config::Value::getUndefined()), IsEmpty());
}

TEST(BackendSettings, EachBadMemberIsNamedAndKeepsItsDefault)
{
    const auto document = parseComm(
        R"({"advertise": "h", "heartbeat_ms": 1, "listen": {}, "max_message_bytes": "1", "rundir": "/x",
            "routes": {"/": "ipc://p/a", "/a": "b", "/b": "ipc://p/", "/c": "ipc://p/c?d", "/good": "ipc://p"}, "run_dir": "relative", "send_queue_bytes": -1,
            "socket_group": 7, "socket_mode": 660, "tls": {}})");
    EXPECT_THAT(
        checkCommSettings(document),
        ElementsAre(HasSubstr("\"advertise\" is not supported yet"), HasSubstr("\"heartbeat_ms\" is 1"),
                    HasSubstr("\"listen\" is not supported yet"), HasSubstr("\"max_message_bytes\" is 1;"),
                    HasSubstr("the route \"/\": ipc://p/a is left out"), HasSubstr("the route \"/a\": b is left out"),
                    HasSubstr("the route \"/b\": ipc://p/ is left out"),
                    HasSubstr("the route \"/c\": ipc://p/c?d is left out"), HasSubstr("\"run_dir\" is relative"),
                    HasSubstr("\"rundir\" is unknown and has no effect; did you mean \"run_dir\"?"),
                    HasSubstr("\"send_queue_bytes\" is -1"), HasSubstr("\"socket_group\" is 7"),
                    HasSubstr("\"socket_mode\" is 660"), HasSubstr("\"tls\" is not supported yet")));
    std::vector<std::string> complaints;
    const CommSettings settings = readCommSettings(document, complaints);
    const CommSettings defaults;
    EXPECT_EQ(settings.heartbeat, defaults.heartbeat);
    EXPECT_EQ(settings.socketMode, defaults.socketMode);
    EXPECT_EQ(settings.sendQueueBytes, defaults.sendQueueBytes);
    EXPECT_EQ(settings.routes.size(), 1U);
    EXPECT_THAT(checkCommSettings(parseComm("[]")), ElementsAre(HasSubstr("\"comm\" is no object")));
}

} // namespace
} // namespace kesa::commadapter::test
