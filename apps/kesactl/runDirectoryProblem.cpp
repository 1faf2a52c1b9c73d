#include "runDirectoryProblem.h"

#include "missingRight.h"

#include <backend/readCommSettings.h>
#include <transport/RunDirectory.h>
#include <util/config/Complaint.h>
#include <util/shellWord.h>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace kesactl {
namespace {

namespace fs = std::filesystem;

std::string textOf(int error)
{
    return std::system_category().message(error);
}

/// The first part of the path that is not there, or is no directory.
fs::path findEnd(const fs::path& path)
{
    fs::path reached;
    for (const fs::path& part : path) {
        reached /= part;
        struct stat status {};
        if (::stat(reached.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
            return reached;
        }
    }
    return reached;
}

/// Where root seems to have the right to make a directory, and cannot.
bool isOfTheKernel(const std::string& directory)
{
    struct statfs system {};
    return ::statfs(directory.c_str(), &system) == 0 &&
           (system.f_type == PROC_SUPER_MAGIC || system.f_type == SYSFS_MAGIC);
}

std::string nameAnother(const std::string& source)
{
    return source == "run_dir" ? R"(name another one with "run_dir")" : "name another one with KESA_RUN_DIR";
}

} // namespace

RunDirectoryProblem findProblem(const RunDirectoryFacts& directory, const std::string& source)
{
    const std::string what = fmt::format("the run directory {} ({})", util::config::excerpt(directory.path), source);
    const std::string end = findEnd(directory.path).string();
    if (directory.error == ENOTDIR) {
        return {fmt::format("{} cannot be one, since {} is a file: {}", what, end, textOf(ENOTDIR)),
                nameAnother(source)};
    }
    if (directory.error != 0 && directory.error != ENOENT) {
        const bool isForbidden = directory.error == EACCES || directory.error == EPERM;
        return {
            fmt::format("{} cannot be looked into: {}{}", what, textOf(directory.error),
                        directory.rights.empty() ? "" : fmt::format(" ({})", directory.rights)),
            (isForbidden
                 ? howToGetRight(directory.path, "have its owner let a group of this user use it", S_IXGRP) + ", or "
                 : "") +
                nameAnother(source)};
    }
    if (!directory.names.empty()) {
        return {};
    }
    if (directory.writeError == EROFS) {
        return {fmt::format("{} is on a read-only file system, so no process can be started there", what),
                "start processes where it can be written, or " + nameAnother(source)};
    }
    if (directory.writeError == ENOSPC) {
        return {fmt::format("{} is on a file system that is full, so no process can be started there", what),
                "make room there (df, df -i), or " + nameAnother(source)};
    }
    if (directory.error == 0) {
        return {};
    }
    const std::string around = fs::path(directory.path).parent_path().string();
    if (end != directory.path) {
        return {fmt::format("{} is not there, and cannot be made, since {} is not there either", what, around),
                fmt::format("make {}, or {}", util::shellWord(around), nameAnother(source))};
    }
    if (isOfTheKernel(around)) {
        return {fmt::format("{} is not there, and nobody can make it in {}, which is the kernel's", what, around),
                nameAnother(source)};
    }
    if (::faccessat(AT_FDCWD, around.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        const int error = errno;
        return {fmt::format("{} is not there, and this user cannot make it in {}: {}", what, around, textOf(error)),
                (error == EROFS ? "" : "have it made for this user, or ") + nameAnother(source)};
    }
    if (Room(around).hasNoneForContent) {
        return {fmt::format("{} is not there, and cannot be made, since the file system of {} is full", what, around),
                "make room there (df, df -i), or " + nameAnother(source)};
    }
    return {};
}

RunDirectoryProblem findProblem()
{
    const kesa::commadapter::transport::RunDirectory place(kesa::commadapter::readCommSettings().runDir);
    return findProblem(RunDirectoryFacts(place.path()), place.source());
}

} // namespace kesactl
