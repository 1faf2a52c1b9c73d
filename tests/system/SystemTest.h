#ifndef KESA_TESTS_SYSTEM_SYSTEMTEST_H
#define KESA_TESTS_SYSTEM_SYSTEMTEST_H

#include "Process.h"

#include <gtest/gtest.h>

#include <list>
#include <string>
#include <vector>

namespace kesa::system_test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool IS_SANITIZED = true; // with descriptors and memory of its own, and slow
#else
inline constexpr bool IS_SANITIZED = false;
#endif

inline const std::string PLAYER = "ipc://media/player";

/// How a process is started.
struct Options {
    std::string comm = "{}";             ///< the document's "comm"
    std::vector<std::string> services{}; ///< locators of services, under their paths
    std::string trace = "*=2";
    bool isNobody = false;
    enum class Document { eWITHOUT_REGISTRY, eWITH_REGISTRY, eNONE };
    Document document = Document::eWITHOUT_REGISTRY;
};

/// For clients of `kesa-registryd`, and itself.
inline const Options WITH_REGISTRY{.document = Options::Document::eWITH_REGISTRY};

/// Processes in a run directory of the test's own. At the end of each test, what every process was told is checked:
/// "connected" and "lost" took turns, each request had values only between its issue and its one end, and ended before
/// the next connection.
class SystemTest : public testing::Test {
protected:
    SystemTest();
    ~SystemTest() override;
    void TearDown() override;

    /// Starts an actor; returns when its runtime runs.
    Process& start(const std::string& process, const Options& options = {});
    /// An actor that is not waited for.
    Process& launch(const std::string& process, const Options& options = {});
    Process& launchProgram(const std::string& name, const std::vector<std::string>& arguments, const Options& options);
    /// An actor that provides `path`.
    Process& startProvider(const std::string& process, const std::string& path, const Options& options = {});
    /// An actor that is connected to `service`, a locator or a path.
    Process& startClient(const std::string& process, const std::string& service, const Options& options = {});
    /// One that also follows its feed.
    Process& startFollower(const std::string& process, const std::string& service, const Options& options = {});

    /// An actor has told nothing bad that nobody waited for.
    static void expectQuiet(Process& actor);
    /// Ends a process and forgets it, after a look at what it was told.
    void discard(Process& process);

    /// Returns when it is ready.
    Process& startRegistry();
    Process& launchRegistry(const Options& options = WITH_REGISTRY);

    /// Somebody who is not concerned: a client of a service, whose calls succeed.
    void startBystander(const std::string& locator);
    /// The same with a provider that is not concerned either.
    void startBystanders();
    /// Some more calls of the bystander, over the connection it has had from the start.
    void expectUndisturbed();

    const std::string& runDirectory() const { return m_runDirectory; }
    bool isInRunDirectory(const std::string& file) const;

private:
    static void check(Process& process);

    std::string m_directory;
    std::string m_runDirectory;
    std::list<Process> m_processes;
    Process* m_bystander = nullptr;
    std::string m_bystanderCall;
    int m_bystanderCalls = 0;
    int m_documents = 0;
};

} // namespace kesa::system_test

#endif
