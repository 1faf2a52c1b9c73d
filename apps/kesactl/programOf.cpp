#include "programOf.h"

#include "RunDirectoryFacts.h"
#include "otherRunDirectories.h"
#include "processNotes.h"

#include <fmt/format.h>
#include <unistd.h>
#include <util/shellWord.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <system_error>

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
    pid_t first = 0;
    std::size_t more = 0;
    for (const pid_t pid : runningProcesses()) {
        if (!isOwnProcess(pid) || pid == ::getpid() || !runsProgram(pid, name)) {
            continue;
        }
        if (const auto note = noteOf(pid)) {
            if (note->isHere) {
                return {
                    fmt::format("process {} runs the program '{}', and has the name '{}'", pid, name, note->process),
                    fmt::format("ask about {}", util::shellWord(note->process))};
            }
        } else if (isWithoutRuntime(pid)) {
            more += first == 0 ? 0 : 1;
            first = first == 0 ? pid : first;
        }
    }
    if (first == 0) {
        return {};
    }
    return {fmt::format("process {}{} runs the program '{}', but {}", first,
                        more == 0 ? "" : fmt::format(", as {} more,", more), name, WITHOUT_RUNTIME),
            "its log says why a runtime did not start; one that was ended does not begin again by itself"};
}

} // namespace kesactl
