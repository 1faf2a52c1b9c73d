// The run directory of the ipc transport: which one it is, and what is said of one that cannot be used.

#include "transport/IpcTransport.h"
#include "transport/chooseRunDirectory.h"
#include "transport_ipc_support.h"

#include <Variable.h>
#include <kesa/commadapter/whyUnreachable.h>
#include <tracing/CapturingSink.h>

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
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

TEST_F(TransportIpc, WhatKilledProcessesHaveLeftIsSweptAndNothingElse)
{
    fs::create_directory(directory);
    const fs::path place = directory;
    const pid_t dead = [] {
        const Child child([] {});
        return child.pid;
    }();
    const std::string ofDead = std::to_string(dead);
    const std::vector<std::string> kept = {".other." + std::to_string(::getpid()) + ".5.tmp",
                                           ".young." + ofDead + ".5.tmp",
                                           ".notes.tmp",
                                           ".tmp",
                                           "..5.tmp",
                                           ".a.12x.5.tmp"};
    const std::vector<std::string> swept = {".media." + ofDead + ".5.tmp", ".realm." + ofDead + ".0a1b2c3d.tmp"};
    for (const auto* const names : {&kept, &swept}) {
        for (const std::string& name : *names) {
            std::ofstream(place / name) << "x";
            if (name.find("young") == std::string::npos) {
                fs::last_write_time(place / name, fs::file_time_type::clock::now() - std::chrono::minutes(2));
            }
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
