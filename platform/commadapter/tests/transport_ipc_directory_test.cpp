// The run directory of the ipc transport: which one it is, and what is said of one that cannot be used.

#include "transport/IpcTransport.h"
#include "transport/chooseRunDirectory.h"
#include "transport_ipc_support.h"

#include <Variable.h>
#include <comm/Scheduler.h>
#include <kesa/commadapter/whyUnreachable.h>
#include <tracing/CapturingSink.h>

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace kesa::commadapter::transport::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

TEST_F(TransportIpc, TheRunDirectoryIsTheMachinesWhereThisUserMayUseIt)
{
    const std::string system = (root / "system").string();
    ::setenv("XDG_RUNTIME_DIR", "/run/user/7", 1);
    EXPECT_EQ(chooseSharedRunDirectory(system).path, system) << "it may be made";
    fs::create_directory(system);
    EXPECT_EQ(chooseSharedRunDirectory(system).path, system);
    EXPECT_EQ(chooseSharedRunDirectory(system + "/none/kesa").path, "/run/user/7/kesa");
    fs::permissions(system, fs::perms::owner_read | fs::perms::owner_exec);
    const bool isRoot = ::geteuid() == 0 && ::seteuid(65534) == 0;
    EXPECT_EQ(chooseSharedRunDirectory(system).path, "/run/user/7/kesa");
    ASSERT_TRUE(!isRoot || ::seteuid(0) == 0);
    ::unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(chooseSharedRunDirectory(system + "/none/kesa").path, system + "/none/kesa");

    const std::string chosen = chooseRunDirectory("").path;
    ::setenv("XDG_RUNTIME_DIR", "/run/user/8", 1);
    EXPECT_EQ(chooseRunDirectory("").path, chosen) << "a process stays where it is";
    ::unsetenv("XDG_RUNTIME_DIR");
    ::setenv("KESA_RUN_DIR", "/own", 1);
    EXPECT_EQ(chooseRunDirectory("").path, "/own");
    EXPECT_EQ(chooseRunDirectory("/configured").path, "/configured");
    ::unsetenv("KESA_RUN_DIR");
}

TEST_F(TransportIpc, AnUnusableRunDirectoryOrSettingIsExplainedOnce)
{
    const tracing::TraceCapture traces("KESA_COMM_IPC");
    std::ofstream(root / "file") << "no directory";
    Node node(board, (root / "file" / "run").string());
    EXPECT_TRUE(node.listen("media"));
    EXPECT_TRUE(node.listen("media"));
    EXPECT_THAT(node.why, EndsWith("file\" is a file; name another one with \"run_dir\" or KESA_RUN_DIR"));
    EXPECT_EQ(traces.take().size(), 1U);

    IpcSettings settings;
    settings.runDir = directory;
    settings.socketGroup = "no such group";
    EXPECT_TRUE(makeIpcTransport(settings, node.loop)->listen("media", {}, node.why));
    EXPECT_EQ(node.why, "there is no group \"no such group\"; see \"socket_group\"");
    Node other(board, directory);
    EXPECT_FALSE(other.listen("media")) << other.why;
}

TEST_F(TransportIpc, ADirectoryInWhichOthersCouldReplaceFilesIsRefused)
{
    const tracing::TraceCapture traces("KESA_COMM_IPC");
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can be two users";
    }
    constexpr uid_t PERSON = 54321;
    constexpr uid_t OTHER = 54322;
    constexpr uid_t SERVICE = 321;
    ASSERT_EQ(::chmod(root.c_str(), 0755), 0);
    fs::create_directory(directory);
    const auto refusal = [&](uid_t owner, gid_t group, mode_t mode, uid_t user) {
        fs::remove(directory + "/media.lock");
        fs::remove(directory + "/media.sock");
        EXPECT_EQ(::chown(directory.c_str(), owner, group), 0);
        EXPECT_EQ(::chmod(directory.c_str(), mode), 0);
        Node node(board, directory);
        EXPECT_EQ(::seteuid(user), 0);
        const bool isRefused = node.listen("media");
        EXPECT_EQ(::seteuid(0), 0);
        return isRefused ? node.why : "";
    };
    const std::string loose =
        "the run directory \"" + directory + "\" lets other users replace what this process makes " + "there: it is ";
    const std::string another = R"(, or name another one with "run_dir" or KESA_RUN_DIR)";
    EXPECT_EQ(refusal(0, SERVICE, 02775, 0),
              loose + "root's, of the group \"321\", with the mode 2775; chmod +t " + directory + another);
    EXPECT_EQ(refusal(0, 0, 0777, PERSON),
              loose + "root's, of the group \"root\", with the mode 0777; have root do: chmod +t " + directory +
                  another);
    EXPECT_THAT(refusal(SERVICE, SERVICE, 02775, SERVICE), HasSubstr("of the group \"321\"")) << "others may be in it";
    EXPECT_EQ(refusal(PERSON, PERSON, 0755, 0), "the run directory \"" + directory + "\" belongs to 54321, who can " +
                                                    "replace what this process makes there; chown root " + directory +
                                                    another);
    EXPECT_THAT(refusal(PERSON, PERSON, 01777, OTHER), HasSubstr("belongs to 54321")) << "somebody came before";
    for (const mode_t mode : {0700U, 0755U, 0775U, 01777U, 03775U}) {
        EXPECT_EQ(refusal(0, mode == 0775 ? 0 : SERVICE, mode, 0), "");
        EXPECT_EQ(refusal(PERSON, PERSON, mode, PERSON), "");
        EXPECT_EQ(refusal(SERVICE, SERVICE, mode == 0775 ? 03775 : mode, 0), "");
    }
    EXPECT_EQ(refusal(0, 0, 01777, PERSON), "") << "as /tmp";

    // Who was first, be it any user, has the realm's file no longer as soon as the directory's owner is there.
    const std::string realm = directory + "/realm";
    const std::uintmax_t inode = [&realm] {
        struct stat status {};
        EXPECT_EQ(::chown(realm.c_str(), PERSON, PERSON), 0);
        EXPECT_EQ(::stat(realm.c_str(), &status), 0);
        return status.st_ino;
    }();
    std::string before;
    std::getline(std::ifstream(realm), before);
    EXPECT_EQ(refusal(0, 0, 01777, OTHER), "");
    struct stat status {};
    ASSERT_EQ(::stat(realm.c_str(), &status), 0);
    EXPECT_EQ(status.st_ino, inode);
    EXPECT_EQ(refusal(0, 0, 01777, 0), "");
    ASSERT_EQ(::stat(realm.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 0U);
    std::string after;
    std::getline(std::ifstream(realm), after);
    EXPECT_EQ(after, before);
}

/// A process that listens, and what somebody does to its files.
class TransportIpcRemoval : public TransportIpc {
protected:
    /// As it is now, of what there is, and who has it.
    std::string rights() const
    {
        std::string all;
        for (const char* file : {"", "/realm", "/media.lock", "/media.sock"}) {
            struct stat status {};
            const bool isThere = ::lstat((directory + file).c_str(), &status) == 0;
            all += fmt::format("{}: {:o} {}:{}\n", file, isThere ? status.st_mode : 0, status.st_uid, status.st_gid);
        }
        std::string realm;
        std::getline(std::ifstream(directory + "/realm"), realm);
        return all + realm;
    }
    /// Runs the loop until it is so: nothing else tells of files.
    bool becomes(Node& node, const std::function<bool()>& isSo)
    {
        const comm::TimeNs end = comm::now() + 30 * comm::SECOND;
        while (!isSo() && comm::now() < end) {
            board.run(*node.loop, [] {});
        }
        board.run(*node.loop, [] {}); // what has made it so is done
        return isSo();
    }
    void visit(Node& visitor)
    {
        ASSERT_EQ(visitor.connect("media"), std::nullopt) << visitor.reason;
        ASSERT_TRUE(board.waitUntil([&] { return !visitor.connected.back().received.empty(); }));
    }
    void leave(Node& visitor)
    {
        board.run(*visitor.loop, [&] { visitor.connected.back().close(); });
        visitor.connected.clear();
    }
    bool hasTraced()
    {
        for (std::string& line : traces.take()) {
            lines.push_back(std::move(line));
        }
        return !lines.empty();
    }
    std::vector<std::string> traced()
    {
        hasTraced();
        return std::exchange(lines, {});
    }
    const tracing::TraceCapture traces{"KESA_COMM_IPC"};
    std::vector<std::string> lines;
};

// Whoever watches its files puts them back by itself, others when a connection ends.
TEST_F(TransportIpcRemoval, WhatIsRemovedIsPutBackWithItsRightsAndNobodyElseGetsTheName)
{
    const std::string moved = (root / "moved").string();
    const std::vector<std::function<void()>> removals{
        [&] { fs::remove(directory + "/media.sock"); },
        [&] { fs::remove(directory + "/media.lock"); },
        [&] { fs::remove(directory + "/realm"); },
        [&] { fs::remove_all(directory); },
        [&] { fs::rename(directory, moved); },
        [&] { fs::rename(directory + "/media.sock", directory + "/elsewhere"); },
        [&] { // another user's
            fs::remove(directory + "/media.sock");
            ::close(rawSocket(directory + "/media.sock", ::bind));
            static_cast<void>(::chown((directory + "/media.sock").c_str(), 65534, 65534));
        },
        [&] {
            fs::remove(directory + "/media.sock");
            fs::create_symlink("/dev/null", directory + "/media.sock");
        },
    };
    for (const bool isWatched : {false, true}) {
        for (std::size_t i = 0; i < removals.size(); ++i) {
            SCOPED_TRACE(fmt::format("{}, {}", i, isWatched ? "watched" : "when a connection ends"));
            fs::remove_all(moved);
            fs::create_directory(directory);
            ::chmod(directory.c_str(), 0750);
            Node media(board, directory);
            Node visitor(board, directory);
            Node late(board, directory);
            ASSERT_FALSE(media.listen("media")) << media.why;
            visit(visitor);
            const std::string before = rights();
            if (isWatched) {
                media.transport->watchOwnEndpoint();
                board.run(*media.loop, [] {});
            }
            board.run(*media.loop, removals[i]);
            if (!isWatched) {
                leave(visitor);
            }
            EXPECT_TRUE(becomes(media, [&] { return rights() == before; })) << before << "\nbut\n" << rights();
            EXPECT_THAT(traced(), testing::ElementsAre(HasSubstr("it has put them back; keep cleaners out")));
            visit(visitor);
            EXPECT_TRUE(late.listen("media"));
            EXPECT_THAT(late.why, HasSubstr("is held by process " + std::to_string(::getpid())));
        }
    }
}

// It tries again until it can, and says only once that it cannot.
TEST_F(TransportIpcRemoval, WhatCannotBePutBackIsSaidOnceAndPutBackLater)
{
    Node media(board, directory);
    Node visitor(board, directory);
    ASSERT_FALSE(media.listen("media")) << media.why;
    visit(visitor);
    fs::remove(directory + "/media.sock");
    fs::create_directory(directory + "/media.sock");
    leave(visitor);
    EXPECT_TRUE(becomes(media, [&] { return hasTraced(); }));
    visitor.connect("media");
    board.run(*media.loop, [] {});
    EXPECT_THAT(traced(), testing::ElementsAre(testing::AllOf(HasSubstr("cannot put them back: cannot listen at"),
                                                              HasSubstr("Is a directory; remove it"))));
    fs::remove(directory + "/media.sock");
    EXPECT_TRUE(becomes(media, [&] { return fs::exists(directory + "/media.sock"); }));
    EXPECT_THAT(traced(), testing::ElementsAre(HasSubstr("it has put them back")));

    // Another one has the name meanwhile, and another realm: it keeps the name for as long as it wants.
    visit(visitor);
    fs::remove_all(directory);
    Node late(board, directory);
    ASSERT_FALSE(late.listen("media")) << late.why;
    leave(visitor);
    EXPECT_TRUE(becomes(media, [&] { return hasTraced(); }));
    EXPECT_THAT(traced(), testing::ElementsAre(testing::AllOf(HasSubstr("cannot put them back: the name"),
                                                              HasSubstr("which is this one"))));
    visit(visitor);
    EXPECT_FALSE(late.accepted.empty());
    board.run(*late.loop, [&] { late.transport->close(); });
    EXPECT_TRUE(becomes(media, [&] { return fs::exists(directory + "/media.sock"); }));
    EXPECT_THAT(traced(), testing::ElementsAre(testing::AllOf(HasSubstr("listens there again, but the directory"),
                                                              HasSubstr("restart it"))));
}

TEST_F(TransportIpc, WhatKilledProcessesHaveLeftIsSweptAndNothingElse)
{
    fs::create_directory(directory);
    const fs::path place = directory;
    const pid_t dead = [] {
        const Child child([] {});
        return child.pid;
    }();
    const std::string ofDead = std::to_string(dead);
    const std::string ending = ".0123456789abcdef.tmp";
    const std::vector<std::string> kept = {".other." + std::to_string(::getpid()) + ending,
                                           ".young." + ofDead + ending,
                                           ".media." + ofDead + ".00123456789abcdef.tmp",
                                           ".media." + ofDead + ".0123456789abcdeg.tmp",
                                           ".notes.tmp",
                                           ".tmp",
                                           "." + ending,
                                           ".a.12x" + ending};
    const std::vector<std::string> swept = {".media." + ofDead + ending, ".realm." + ofDead + ending,
                                            ".media." + ofDead + ".5.tmp", '.' + ofDead + ".5.tmp"};
    const auto leave = [&](const std::string& name) {
        std::ofstream(place / name) << "x";
        if (name.find("young") == std::string::npos) {
            fs::last_write_time(place / name, fs::file_time_type::clock::now() - std::chrono::minutes(2));
        }
    };
    for (const auto* const names : {&kept, &swept}) {
        for (const std::string& name : *names) {
            leave(name);
        }
    }
    Node node(board, directory);
    ASSERT_FALSE(node.listen("media")) << node.why;
    for (const std::string& name : kept) {
        EXPECT_TRUE(fs::exists(place / name)) << name;
    }
    for (const std::string& name : swept) {
        EXPECT_FALSE(fs::exists(place / name)) << name;
    }

    constexpr int MANY = 5000;
    for (int i = 0; i < MANY; ++i) {
        leave(".many" + std::to_string(i) + '.' + ofDead + ending);
    }
    Node second(board, directory);
    ASSERT_FALSE(second.listen("nav")) << second.why;
    EXPECT_GE(std::distance(fs::directory_iterator(place), fs::directory_iterator()), MANY - 4096)
        << "a start looks at no more";
}

// The other causes are told by `kesactl why` and `kesactl ps`, whose sessions have them.
TEST_F(TransportIpc, NobodyIsSentIntoTheGroupOfRootOrOfAPerson)
{
    std::vector<gid_t> groups(static_cast<std::size_t>(::getgroups(0, nullptr)));
    ASSERT_GE(::getgroups(static_cast<int>(groups.size()), groups.data()), 0);
    if (::geteuid() != 0 || ::setgroups(0, nullptr) != 0) {
        GTEST_SKIP() << "only root can give a socket to another group";
    }
    const gid_t own = ::getegid();
    ASSERT_EQ(::setegid(65534), 0);
    const kesa::test::Variable runDirectory("KESA_RUN_DIR", folder.path());
    const kesa::test::Variable configuration("KESA_CONFIG_DIR", folder.path());
    const std::string path = (root / "media.sock").string();
    const int media = rawSocket(path, ::bind);
    const auto expectAdvice = [&path](uid_t owner, gid_t group, mode_t mode, const std::string& advice) {
        ASSERT_EQ(::chown(path.c_str(), owner, group), 0);
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        ASSERT_EQ(::seteuid(65534), 0);
        const Unreachable found = whyUnreachable(url("ipc://media/player"), comm::SECOND / 10);
        ASSERT_EQ(::seteuid(0), 0);
        EXPECT_EQ(found.cause, Unreachable::Cause::eFORBIDDEN);
        EXPECT_THAT(found.reason, HasSubstr(advice));
    };
    ASSERT_EQ(::chmod(root.c_str(), 0755), 0);
    const std::string join = "and mode 0660; add this user to the group";
    const std::string set = R"(let a group of both use it: "socket_group" and "socket_mode" of that process)";
    expectAdvice(0, 0, 0660, set);
    expectAdvice(54321, 54321, 0660, set);
    expectAdvice(0, 54321, 0600, set);
    expectAdvice(0, 54321, 0660, join);
    expectAdvice(321, 321, 0660, join); // a service's
    ASSERT_EQ(::chmod(root.c_str(), 0750), 0);
    expectAdvice(0, 0, 0660, "its owner has to let a group of this user use it");
    ::close(media);
    ASSERT_EQ(::setegid(own), 0);
    ASSERT_EQ(::setgroups(groups.size(), groups.data()), 0);
}

} // namespace
} // namespace kesa::commadapter::transport::test
