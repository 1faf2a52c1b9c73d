// Who has which name, and what becomes of files and directories that are in the way or go away.

#include "SystemTest.h"

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

namespace kesa::system_test {
namespace {

namespace fs = std::filesystem;

const std::string PLAYER = "ipc://media/player";

using SystemNames = SystemTest;

bool canNobodyRun(const fs::path& program)
{
    bool isOpen = true;
    for (fs::path place = program; place != place.root_path(); place = place.parent_path()) {
        isOpen = isOpen && (fs::status(place).permissions() & fs::perms::others_exec) != fs::perms::none;
    }
    return isOpen;
}

TEST_F(SystemNames, ASecondProcessOfANameProvidesNothingUntilTheFirstHasEnded)
{
    Process& first = startProvider("media", "/player");
    startBystander(PLAYER);
    Process& second = start("media", {.trace = "*=4"});
    second.send("provide /player");
    second.expect("refused /player 409");
    second.send("provide /other");
    second.expect("refused /other 409");
    second.expectTrace("[claimName] 'media' cannot provide services: the name \"media\" is held by process " +
                       std::to_string(first.pid()));
    // It is a client as any other, also of the one whose name it has.
    second.send("resolve " + PLAYER);
    second.expect("connected " + PLAYER);
    second.send("follow " + PLAYER);
    second.expect("value " + PLAYER + "#1 0");
    expectUndisturbed();
    second.kill();
    expectUndisturbed();

    Process& third = start("media");
    Process& watcher = startClient("watcher", PLAYER);
    first.send("provide /later");
    first.expect("provided /later");
    third.send("resolve " + PLAYER);
    third.expect("connected " + PLAYER);
    endBystander();
    first.kill();
    third.expect("lost " + PLAYER);
    watcher.expect("lost " + PLAYER);
    third.send("provide /player");
    third.expect("provided /player");
    third.expect("connected " + PLAYER);
    watcher.expect("connected " + PLAYER);
}

TEST_F(SystemNames, WhatADeadProcessLeftIsInNobodysWay)
{
    Process& dead = startProvider("media", "/player");
    dead.kill();
    EXPECT_TRUE(isInRunDirectory("media.sock") && isInRunDirectory("media.lock"));
    Process& watcher = start("watcher");
    watcher.send("resolve " + PLAYER);
    watcher.expectTrace("nobody listens on the socket of \"media\"");
    startProvider("media", "/player");
    watcher.expect("connected " + PLAYER);
}

TEST_F(SystemNames, FilesOfOthersUnderTheNamesAreReplacedOrExplained)
{
    fs::create_directory(runDirectory());
    std::ofstream(runDirectory() + "/media.sock") << "no socket";
    fs::create_directory(runDirectory() + "/taken.lock");
    Process& watcher = start("watcher");
    watcher.send("resolve " + PLAYER);
    watcher.expectTrace("'ipc://media' is not connected");
    startProvider("media", "/player");
    watcher.expect("connected " + PLAYER);

    Process& taken = start("taken");
    taken.send("provide /a");
    taken.expect("refused /a 409");
    taken.expectTrace("cannot open \"taken.lock\" in the run directory");
}

TEST_F(SystemNames, ARunDirectoryThatIsRemovedIsMadeAgain)
{
    Process& watcher = start("watcher");
    watcher.send("resolve " + PLAYER);
    watcher.expectTrace("no process listens as \"media\"");
    Process& provider = startProvider("media", "/player");
    watcher.expect("connected " + PLAYER);
    fs::remove_all(runDirectory());
    watcher.send("call after " + PLAYER + " /echo");
    watcher.expect("completed after");
    provider.kill();
    watcher.expect("lost " + PLAYER);

    Process& second = startProvider("media", "/player");
    watcher.expect("connected " + PLAYER);
    second.kill();
    watcher.expect("lost " + PLAYER);
    fs::remove_all(runDirectory());
    startProvider("media", "/player");
    watcher.expect("connected " + PLAYER);
}

// The realm is made anew with the directory: a locator of before means nobody.
TEST_F(SystemNames, ALocatorOfARunDirectoryThatIsGoneIsNotHandled)
{
    Process& first = start("media");
    first.send("provide /player");
    const std::string before = first.expect("provided /player");
    first.kill();
    fs::remove_all(runDirectory());
    Process& second = start("media");
    second.send("provide /player");
    const std::string after = second.expect("provided /player");
    EXPECT_NE(before, after);
    Process& watcher = startClient("watcher", after);
    watcher.send("resolve " + before);
    watcher.expect("failed " + before + " 404");
}

TEST_F(SystemNames, WhoMayNotWriteIntoTheRunDirectoryIsAClientOnly)
{
    if (::geteuid() == 0 && !canNobodyRun(KESA_SYSTEM_ACTOR)) {
        GTEST_SKIP() << "nobody may not run the actor where it was built";
    }
    startProvider("media", "/player", {.comm = R"({"socket_mode": "0666"})"});
    fs::permissions(runDirectory(), fs::perms(0555));
    Process& reader = start("reader", {.isNobody = true});
    reader.send("provide /a");
    reader.expect("refused /a 409");
    reader.expectTrace("this process can connect, but provides nothing: cannot write into the run directory \"" +
                       runDirectory() + "\": Permission denied");
    reader.send("resolve " + PLAYER);
    reader.expect("connected " + PLAYER);
    reader.send("call allowed " + PLAYER + " /echo");
    reader.expect("completed allowed");
    fs::permissions(runDirectory(), fs::perms(0755));
}

TEST_F(SystemNames, WhereThereCanBeNoRunDirectoryEverythingElseGoesOn)
{
    const std::string file = directory() + "/file";
    std::ofstream(file) << "no directory";
    Process& lonely = start("lonely", {.runDirectory = file});
    lonely.send("provide /a");
    lonely.expect("refused /a 409");
    lonely.expectTrace("cannot open the run directory \"" + file + "\": Not a directory");
    lonely.send("resolve " + PLAYER);
    lonely.expectTrace("'ipc://media' is not connected");
    fs::remove(file);
    lonely.send("provide /a");
    lonely.expect("provided /a");
    startProvider("media", "/player", {.runDirectory = file});
    lonely.expect("connected " + PLAYER);
}

TEST_F(SystemNames, LongPathsAndOddNamesAreReachedByTheLocatorThatWasProvided)
{
    std::string deep = directory();
    for (int level = 0; level < 8; ++level) {
        deep += "/a-directory-of-a-long-path";
    }
    fs::create_directories(deep);
    const std::string longest(64, 'n');
    for (const std::string& name : {std::string("two words"), std::string("../up"), std::string(".hidden"),
                                    std::string("50%+r@h:1?#"), std::string("M\xc3\xbcller\n"), longest}) {
        Process& provider = start(name, {.runDirectory = deep + "/run"});
        provider.send("provide /player");
        const std::string locator = provider.expect("provided /player");
        Process& client = startClient("client", locator, {.runDirectory = deep + "/run"});
        client.send("call answered " + locator + " /echo");
        client.expect("completed answered");
        provider.kill();
        client.expect("lost " + locator);
    }
    EXPECT_FALSE(fs::exists(deep + "/up.sock"));

    Process& tooLong = start(longest + "n", {.runDirectory = deep + "/run"});
    tooLong.send("provide /player");
    tooLong.expect("refused /player 409");
    tooLong.expectTrace("cannot be the name of this process");
}

} // namespace
} // namespace kesa::system_test
