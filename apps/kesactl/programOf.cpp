#include "programOf.h"

#include "RunDirectoryFacts.h"
#include "otherRunDirectories.h"
#include "output.h"
#include "processNotes.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

namespace kesactl {
namespace {

namespace fs = std::filesystem;

bool runsProgram(pid_t pid, const std::string& program)
{
    constexpr std::size_t MOST_OF_NAME = 15; // the kernel keeps no more
    const fs::path folder = fmt::format("/proc/{}", pid);
    std::error_code unknown;
    std::string name;
    std::getline(std::ifstream(folder / "comm"), name);
    return name == program.substr(0, MOST_OF_NAME) ||
           fs::read_symlink(folder / "exe", unknown).filename().native() == program;
}

bool mayLookInto(pid_t pid)
{
    std::error_code failed;
    return fs::directory_iterator(fmt::format("/proc/{}/fd", pid), failed) != fs::directory_iterator() && !failed;
}

bool hasName(const RunDirectoryFacts& directory, pid_t pid)
{
    return std::any_of(directory.names.begin(), directory.names.end(),
                       [pid](const auto& name) { return name.holder == pid || name.listener == pid; });
}

} // namespace

bool isWithoutRuntime(pid_t pid)
{
    return mayLookInto(pid) && !noteOf(pid) && !hasName(RunDirectoryFacts(chosenRunDirectory()), pid);
}

ProgramOf findProgramOf(const std::string& name)
{
    std::vector<std::string> named;
    std::vector<std::string> without;
    for (const pid_t pid : runningProcesses()) {
        if (!isOwnProcess(pid) || pid == ::getpid() || !runsProgram(pid, name)) {
            continue;
        }
        if (const auto note = noteOf(pid)) {
            if (note->isHere) {
                named.push_back(note->who());
            }
        } else if (isWithoutRuntime(pid)) {
            without.push_back(fmt::format("process {}", pid));
        }
    }
    if (!named.empty()) {
        return {fmt::format("the program '{}' runs as {}", name, firstOf(named)), "ask about one of that name"};
    }
    if (!without.empty()) {
        return {fmt::format("{} {} the program '{}', but no Kesa runtime: it has not started one, or has ended it "
                            "(Runtime::end, KesaRuntime::shutdown)",
                            firstOf(without), without.size() == 1 ? "runs" : "run", name),
                "its log says why a runtime did not start; one that was ended does not begin again by itself"};
    }
    return {};
}

} // namespace kesactl
