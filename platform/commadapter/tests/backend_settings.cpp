// The "comm" member of the configuration document: what is wrong is named and left out, the rest applies.

#include "backend/readCommSettings.h"

#include <kesa/commadapter/checkCommSettings.h>
#include <util/config/JSONParser.h>

#include <gmock/gmock.h>

namespace kesa::commadapter::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

util::config::Value parseComm(std::string_view text)
{
    util::config::Value value;
    EXPECT_FALSE(util::config::JSONParser().parseString(text, value));
    return value;
}

TEST(BackendSettings, GoodMembersApply)
{
    CommFaults faults;
    const CommSettings settings =
        readCommSettings(parseComm(R"({"run_dir": "/tmp/run", "socket_mode": "0600", "socket_group": "kesa",
                  "routes": {"/registry": "ipc://kesa-registryd/registry"}, "max_message_bytes": 1048576,
                  "send_queue_bytes": 131072, "heartbeat_ms": 250})"),
                         faults);
    EXPECT_THAT(faults.complaints, IsEmpty());
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
            "routes": {"/": "ipc://p/a", "/a": "b", "/b": "ipc://p/", "/c": "ipc://p/c?d", "/d": "ipc:///d", "/good": "ipc://p"}, "run_dir": "relative", "send_queue_bytes": -1,
            "socket_group": 7, "socket_mode": 660, "tls": {}})");
    CommFaults faults;
    const CommSettings settings = readCommSettings(document, faults);
    std::vector<std::string> sentences;
    for (const util::config::Complaint& complaint : faults.complaints) {
        sentences.push_back(complaint.sentence(""));
    }
    const std::string locators = "; write a path and a locator such as \"/registry\" and "
                                 "\"ipc://kesa-registryd/registry\", neither with '/' at its end, and without a query";
    const std::string bytes = "write a whole number from 65536 to 1073741824";
    const std::string notYet = "is not supported yet: processes are reached over \"ipc\" only; leave it out";
    EXPECT_THAT(sentences,
                ElementsAre("comm.advertise: \"advertise\" " + notYet,
                            "comm.heartbeat_ms: \"heartbeat_ms\" is 1; write a whole number from 10 to 3600000",
                            "comm.listen: \"listen\" " + notYet,
                            "comm.max_message_bytes: \"max_message_bytes\" is \"1\"; " + bytes,
                            "comm.routes./: the route \"/\": \"ipc://p/a\" is left out" + locators,
                            "comm.routes./a: the route \"/a\": \"b\" is left out" + locators,
                            "comm.routes./b: the route \"/b\": \"ipc://p/\" is left out" + locators,
                            "comm.routes./c: the route \"/c\": \"ipc://p/c?d\" is left out" + locators,
                            "comm.routes./d: the route \"/d\": \"ipc:///d\" is left out" + locators,
                            "comm.run_dir: \"run_dir\" is \"relative\"; write the absolute path of a folder",
                            "comm.rundir: \"rundir\" is unknown and has no effect; did you mean \"run_dir\"?",
                            "comm.send_queue_bytes: \"send_queue_bytes\" is -1; " + bytes,
                            "comm.socket_group: \"socket_group\" is 7; write the name of a group",
                            "comm.socket_mode: \"socket_mode\" is 660; write the rights of the socket as a string of "
                            "octal digits, such as \"0660\"",
                            "comm.tls: \"tls\" " + notYet));
    const CommSettings defaults;
    EXPECT_EQ(settings.heartbeat, defaults.heartbeat);
    EXPECT_EQ(settings.socketMode, defaults.socketMode);
    EXPECT_EQ(settings.sendQueueBytes, defaults.sendQueueBytes);
    EXPECT_EQ(settings.routes.size(), 1U);
    EXPECT_EQ(checkCommSettings(parseComm("[]")).at(0).sentence("f"),
              "f: comm: \"comm\" is no object; write {\"run_dir\": \"/run/kesa\"} or leave it out");
    std::string many = R"({"routes": {"/": 1)";
    for (int i = 1; i < 2000; ++i) {
        many += ", \"" + std::to_string(i) + "\": 1";
    }
    const auto listed = checkCommSettings(parseComm(many + R"(}, "unknown": 1})"));
    EXPECT_EQ(listed.size(), 1001U);
    EXPECT_EQ(listed.back().sentence(""), "comm: 1001 more faults are not listed; correct these first");
}

} // namespace
} // namespace kesa::commadapter::test
