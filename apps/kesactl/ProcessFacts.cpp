#include "ProcessFacts.h"

#include <comm/processStart.h>
#include <fmt/format.h>
#include <rules/usersAndGroups.h>
#include <unistd.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

namespace kesactl {
namespace {

constexpr std::string_view DELETED = " (deleted)";

bool takeDeleted(std::string& path)
{
    const bool isDeleted =
        path.size() > DELETED.size() && path.compare(path.size() - DELETED.size(), DELETED.size(), DELETED) == 0;
    path.resize(path.size() - (isDeleted ? DELETED.size() : 0));
    return isDeleted;
}

/// The rest of the line that begins with `key`.
std::string readLine(const std::string& file, std::string_view key)
{
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, key.size(), key) == 0) {
            return line.substr(key.size());
        }
    }
    return {};
}

/// The file of Kesa's runtime that the process has loaded.
std::string findLibrary(const std::string& folder)
{
    std::ifstream maps(folder + "/maps");
    for (std::string line; std::getline(maps, line);) {
        const std::size_t name = line.rfind("/libkesa_runtime.so");
        if (name != std::string::npos) {
            return line.substr(name + 1);
        }
    }
    return {};
}

} // namespace

ProcessFacts::ProcessFacts(pid_t pid)
{
    const std::string folder = "/proc/" + std::to_string(pid);
    struct stat status {};
    if (::stat(folder.c_str(), &status) != 0) {
        return;
    }
    const std::string state = readLine(folder + "/status", "State:\t");
    if (!state.empty() && (state.front() == 'Z' || state.front() == 'X')) {
        return; // it has ended, and nobody has asked how
    }
    isThere = true;
    started = comm::processStart(pid);
    uid = status.st_uid;
    user = kesa::access::userName(uid);
    isTraced = !state.empty() && state.front() == 't';
    isStopped = isTraced || (!state.empty() && state.front() == 'T');
    std::error_code unknown;
    executable = std::filesystem::read_symlink(folder + "/exe", unknown).string();
    if (unknown) {
        executable = readLine(folder + "/status", "Name:\t");
    }
    library = findLibrary(folder);
    const bool isProgramReplaced = takeDeleted(executable);
    isReplaced = takeDeleted(library) || isProgramReplaced;
}

std::string howToContinue(pid_t pid)
{
    const ProcessFacts facts(pid);
    return fmt::format("continue it with kill -CONT {}{}", pid,
                       facts.isThere && ::geteuid() != 0 && ::geteuid() != facts.uid
                           ? fmt::format(", as {} or root", facts.user)
                           : "");
}

} // namespace kesactl
