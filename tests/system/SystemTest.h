#ifndef KESA_TESTS_SYSTEM_SYSTEMTEST_H
#define KESA_TESTS_SYSTEM_SYSTEMTEST_H

#include "Stage.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kesa::system_test {

inline const std::string PLAYER = "ipc://media/player";

/// What every process was told is checked at the end of each test.
class SystemTest : public testing::Test, protected Stage {
protected:
    void TearDown() override;

    /// Starts an actor; returns when its runtime runs.
    Process& start(const std::string& process, const Options& options = {});
    /// An actor that provides `path`.
    Process& startProvider(const std::string& process, const std::string& path, const Options& options = {});
    /// An actor that is connected to `service`, a locator or a path.
    Process& startClient(const std::string& process, const std::string& service, const Options& options = {});
    /// One that also follows its feed.
    Process& startFollower(const std::string& process, const std::string& service, const Options& options = {});

    /// Whether the actor lies where other users may run it.
    static bool canOthersRunActors();
    /// Why there are no processes of other users; empty: there may be.
    static std::string whyNoOtherUsers();
    /// An actor has told nothing bad that nobody waited for.
    static void expectQuiet(Process& actor);
    /// Ends a process and forgets it, after a look at what it was told.
    void discard(Process& process);

    /// Returns when it is ready.
    Process& startRegistry();

    struct Printed {
        int status = 0;
        std::string text;
        std::string complaint;
    };
    /// What kesactl prints to the end.
    Printed runTool(const std::vector<std::string>& words, const Options& options = {});

    /// Somebody who is not concerned: a client of a service, whose calls succeed.
    void startBystander(const std::string& locator);
    /// The same with a provider that is not concerned either.
    void startBystanders();
    /// Some more calls of the bystander, over the connection it has had from the start.
    void expectUndisturbed();

private:
    void check(Process& process);

    Process* m_bystander = nullptr;
    std::string m_bystanderCall;
    int m_bystanderCalls = 0;
};

} // namespace kesa::system_test

#endif
