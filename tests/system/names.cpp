// Who may have a name, and who may not.

#include "RawPeer.h"
#include "SystemTest.h"

#include <gmock/gmock.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <utility>

namespace kesa::system_test {
namespace {

namespace fs = std::filesystem;

using SystemNames = SystemTest;

TEST_F(SystemNames, ASecondProcessOfANameProvidesNothingUntilTheFirstHasEnded)
{
    Process& first = startProvider("media", "/player");
    startBystander(PLAYER);
    Process& second = start("media", {.trace = "*=4"});
    second.send("provide /other");
    second.expect("refused /other 409");
    second.expectTrace("[claimName] 'media' cannot provide services: the name \"media\" is held by process " +
                       std::to_string(first.pid()));
    // It is a client as any other, also of the one whose name it has.
    second.send("resolve " + PLAYER);
    second.expect("connected " + PLAYER);
    expectUndisturbed();
    first.kill();
    second.expect("lost " + PLAYER);
    second.send("provide /player");
    second.expect("provided /player");
    second.expect("connected " + PLAYER);
}

TEST_F(SystemNames, NobodyRegistersUnderTheNameOfAnotherLivingProcess)
{
    startRegistry();
    Process& raw = start("raw");
    raw.send("provide /mine");
    raw.expect("provided /mine");
    RawPeer liar(runDirectory(), "kesa-registryd");
    liar.send(wire::hello() + wire::attach(1, "/registry") + wire::registration(1, 1, "/yours"));
    std::string answer;
    do {
        answer = liar.readFrame();
    } while (wire::kindOf(answer) != wire::eERROR);
    EXPECT_EQ(wire::targetOf(answer), 409U);
    EXPECT_NE(answer.find("calls itself \"raw\", but process " + std::to_string(raw.pid()) + " has that name"),
              std::string::npos);
}

TEST_F(SystemNames, WhoMayNotWriteIntoTheRunDirectoryIsAClientOnly)
{
    if (::geteuid() == 0 && !canOthersRunActors()) {
        GTEST_SKIP() << "nobody may not run the actor where it was built";
    }
    startProvider("nav", "/route"); // 0660
    startProvider("media", "/player", {.comm = R"({"socket_mode": "0666"})"});
    fs::permissions(runDirectory(), fs::perms(0555));
    Process& reader = start("reader", {.user = NOBODY});
    reader.send("provide /a");
    reader.expect("refused /a 409");
    reader.expectTrace("this process can connect, but provides nothing: cannot write into the run directory \"" +
                       runDirectory() + "\": Permission denied");
    reader.send("resolve " + PLAYER);
    reader.expect("connected " + PLAYER);
    reader.send("resolve ipc://nav/route");
    reader.expectTrace("'ipc://nav' is not connected: no right to use \"" + runDirectory() +
                       "/nav.sock\", which has the group ");
    fs::permissions(runDirectory(), fs::perms(0755));
}

TEST_F(SystemNames, WhatAnotherUserHasPutInTheWayIsNamed)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can make the files of two users";
    }
    constexpr uid_t DAEMON = 1;
    fs::create_directory(runDirectory());
    fs::permissions(runDirectory(), fs::perms(01777));
    for (const auto& [file, user] : {std::pair{"media.lock", NOBODY}, {"media.sock", DAEMON}, {"nav.sock", DAEMON}}) {
        std::ofstream(fs::path(runDirectory()) / file) << file;
        ASSERT_EQ(::chown((runDirectory() + '/' + file).c_str(), user, user), 0);
    }
    const Printed doctor = runTool({"doctor"});
    EXPECT_EQ(doctor.status, 1);
    EXPECT_THAT(doctor.text, testing::HasSubstr("media.sock is daemon's, while the name is nobody's, who cannot "
                                                "replace it: have daemon or root remove it"));
    EXPECT_THAT(doctor.text, testing::HasSubstr("nav.sock is a file, where a socket belongs; the next process of that "
                                                "name of daemon or root replaces it, or remove it"));
    if (canOthersRunActors()) {
        const Printed ps = runTool({"ps"}, {.user = NOBODY}); // who may not even try them
        EXPECT_EQ(ps.status, 1);
        EXPECT_THAT(ps.complaint, testing::HasSubstr("no process has a name in the run directory"));
    }
}

} // namespace
} // namespace kesa::system_test
