// Who may have a name, and who may not.

#include "RawPeer.h"
#include "SystemTest.h"

#include <unistd.h>

#include <filesystem>

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
    EXPECT_EQ(wire::statusOf(answer), 409U);
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

} // namespace
} // namespace kesa::system_test
