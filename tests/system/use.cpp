// A client that follows its service, where files and descriptors are concerned. The scenarios have the rest.

#include "SystemTest.h"

#include <filesystem>

namespace kesa::system_test {
namespace {

using SystemUse = SystemTest;

TEST_F(SystemUse, FindsItsServiceAgainInARunDirectoryThatIsMadeAnew)
{
    namespace fs = std::filesystem;
    Process& user = start("user", WITH_REGISTRY);
    user.send("use /p");
    user.send("resolve /p");
    user.send("provide /own");
    user.expect("provided /own");
    for (const bool isRemoved : {false, false, true, true, false}) {
        Process& registry = startRegistry();
        Process& provider = startProvider("provider", "/p", WITH_REGISTRY);
        user.expect("there /p");
        user.expect("connected /p");
        user.expect("began /p");
        registry.kill();
        provider.kill();
        user.expect("gone /p");
        user.expect("lost /p");
        const std::string removed = isRemoved ? runDirectory() + ".removed" : runDirectory();
        if (isRemoved) { // at once: the user puts back what is its own
            fs::rename(runDirectory(), removed);
        }
        for (const auto& file : fs::directory_iterator(removed)) {
            fs::remove(file);
        }
        if (isRemoved) {
            fs::remove(removed);
        }
    }
    user.send("resolve /own");
    user.expect("connected /own");
    EXPECT_EQ(user.findUnexpected("unfollowed"), "");
}

TEST_F(SystemUse, GetsOverAMomentWithoutDescriptors)
{
    if (IS_SANITIZED) {
        GTEST_SKIP() << "the sanitizers need descriptors of their own";
    }
    Process& user = start("user", WITH_REGISTRY);
    user.send("use /p");
    user.expectTrace("'ipc://kesa-registryd' is not connected");
    startRegistry();
    user.expectTrace("'ipc://kesa-registryd' is connected now");
    user.limitDescriptors(0);
    startProvider("provider", "/p", WITH_REGISTRY); // of a realm that the user has to look up
    user.expectTrace("is not connected: cannot read which realm the run directory has: Too many open files");
    user.send("provide /q");
    user.expect("refused /q 409");
    user.expectTrace("\": Too many open files; this process has used up its descriptors: let it have more");
    user.freeDescriptors();
    user.expect("there /p");
    user.send("provide /q");
    user.expect("provided /q");
}

} // namespace
} // namespace kesa::system_test
