#ifndef KESA_TESTS_SYSTEM_STAGE_H
#define KESA_TESTS_SYSTEM_STAGE_H

#include "Process.h"

#include <TemporaryFolder.h>

#include <list>
#include <string>
#include <vector>

namespace kesa::system_test {

#ifdef KESA_SANITIZED
inline constexpr bool IS_SANITIZED = true; // with descriptors and memory of its own, and slow
#else
inline constexpr bool IS_SANITIZED = false;
#endif

/// How a process is started.
struct Options {
    std::string comm = "{}";             ///< the document's "comm"
    std::vector<std::string> services{}; ///< locators of services, under their paths
    std::string trace = "*=2";
    std::string access{}; ///< the document's "access", from its second line on; empty: none
    uid_t user = 0;       ///< as of `Process::Setup`
    bool hasRegistry = false;
    std::string document{}; ///< a file to read, instead of one that says the above
};

/// For clients of `kesa-registryd`, and itself.
inline const Options WITH_REGISTRY{.hasRegistry = true};

/// Processes in a run directory of their own.
class Stage {
public:
    Stage();
    ~Stage();
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    /// An actor that is not waited for.
    Process& launch(const std::string& process, const Options& options = {});
    Process& launchRegistry(const Options& options = WITH_REGISTRY);
    /// kesactl, told in words; what it prints is what it tells.
    Process& launchTool(const std::vector<std::string>& words, const Options& options = WITH_REGISTRY);
    std::list<Process>& processes() { return m_processes; }
    /// Ends a process and forgets it.
    void discard(Process& process);

    /// What is wrong with how a process has run or what it was told, with all that; empty when nothing is.
    static std::string complaintAbout(Process& process);

    const std::string& runDirectory() const { return m_runDirectory; }
    std::string pathOf(const std::string& file) const { return m_directory / file; }
    bool isInRunDirectory(const std::string& file) const;

private:
    Process& launchProgram(const std::string& name, const std::vector<std::string>& arguments, const Options& options);

    const test::TemporaryFolder m_directory;
    const std::string m_runDirectory = m_directory / "run";
    std::list<Process> m_processes;
    int m_documents = 0;
};

} // namespace kesa::system_test

#endif
