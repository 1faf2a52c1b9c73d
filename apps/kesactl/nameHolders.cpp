// A process keeps its lock file open for as long as it has its name, and the kernel tells what became of the file: so a
// process is found also where its run directory is not known, and where somebody has removed the file.
#include "nameHolders.h"

#include <transport/fileLocks.h>

#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string_view>
#include <system_error>

namespace kesactl {
namespace {

namespace fs = std::filesystem;
using kesa::commadapter::transport::FileLocks;
using kesa::commadapter::transport::readFileLocks;

constexpr std::string_view ENDING = ".lock";
constexpr std::string_view REMOVED = " (deleted)";

bool takeEnding(std::string& text, std::string_view ending)
{
    const bool has =
        text.size() > ending.size() && text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
    text.resize(text.size() - (has ? ending.size() : 0));
    return has;
}

/// Of one that is there, its directory has a realm, as other programs' have none.
void addHolder(std::vector<NameHolder>& holders, pid_t pid, const std::string& link, const FileLocks& locks)
{
    struct stat opened {};
    std::error_code failed;
    std::string target = fs::read_symlink(link, failed).string();
    const bool isRemoved = takeEnding(target, REMOVED);
    const std::string path = target;
    if (failed || !takeEnding(target, ENDING) || ::stat(link.c_str(), &opened) != 0) {
        return;
    }
    const auto [begin, end] = locks.equal_range(opened.st_ino);
    bool isLocked = false;
    for (auto lock = begin; lock != end; ++lock) {
        isLocked = isLocked || lock->second.holder == pid;
    }
    struct stat present {};
    const bool isLost = isRemoved || ::stat(path.c_str(), &present) != 0 || present.st_ino != opened.st_ino;
    const fs::path file(target);
    if (isLocked && (isLost || fs::exists(file.parent_path() / "realm", failed))) {
        holders.push_back({pid, file.filename().string(), file.parent_path().string(), isLost});
    }
}

} // namespace

std::vector<NameHolder> findNameHolders()
{
    const FileLocks locks = readFileLocks();
    std::set<pid_t> pids;
    for (const auto& [inode, lock] : locks) {
        pids.insert(lock.holder);
    }
    std::vector<NameHolder> holders;
    for (const pid_t pid : pids) {
        std::error_code failed; // of a process that has ended, or of another user
        for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", failed)) {
            addHolder(holders, pid, entry.path().string(), locks);
        }
    }
    return holders;
}

bool holdsNameIn(pid_t pid, const std::string& directory)
{
    std::error_code failed;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", failed)) {
        std::string target = fs::read_symlink(entry.path(), failed).string();
        if (takeEnding(target, ENDING) && fs::equivalent(fs::path(target).parent_path(), directory, failed)) {
            return true;
        }
    }
    return false;
}

} // namespace kesactl
