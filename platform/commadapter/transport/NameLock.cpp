// Who has a name is decided by the lock on `<process>.lock` alone: the kernel gives it back when its holder dies,
// however that happens, and it belongs to one opening of the file, so a second claim in the same process is refused as
// well. Nobody removes the file, or two processes could hold locks on two files of one name; where somebody did all the
// same, only the file that stands there now counts.

#include "transport/NameLock.h"

#include "transport/Authority.h"
#include "transport/fileLocks.h"
#include <rules/usersAndGroups.h>

#include <comm/processStart.h>
#include <obr/explainError.h>
#include <util/shellWord.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fmt/chrono.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <ctime>
#include <fstream>
#include <string>

namespace kesa::commadapter::transport {

namespace {

constexpr const char* ENDING = ".lock";
constexpr mode_t OWN_MODE = 0600;
constexpr mode_t SHARED_MODE = 0660;
/// What the kernel needs for a large process on a busy machine.
constexpr int LONGEST_END_MS = 2000;

/// Where it is, as far as that is known.
std::string pathOf(int directory, const std::string& file)
{
    std::array<char, 4096> path;
    const ssize_t size = ::readlink(fmt::format("/proc/self/fd/{}", directory).c_str(), path.data(), path.size());
    return size > 0 ? fmt::format("{}/{}", std::string_view(path.data(), static_cast<std::size_t>(size)), file)
                    : fmt::format("{} in the run directory", file);
}

/// The program's path, else its short name, which everybody may read; empty when neither can be.
std::string programOf(pid_t pid)
{
    std::array<char, 4096> path;
    const ssize_t size = ::readlink(fmt::format("/proc/{}/exe", pid).c_str(), path.data(), path.size());
    if (size > 0) {
        return {path.data(), static_cast<std::size_t>(size)};
    }
    std::string name;
    std::getline(std::ifstream(fmt::format("/proc/{}/comm", pid)), name);
    return name;
}

/// Who has locked the file: the claim wrote its number into the file and nobody does since. 0 when that is not there.
pid_t readHolder(int lockFile)
{
    std::array<char, 16> buffer;
    const ssize_t size = retryInterrupted([&] { return ::pread(lockFile, buffer.data(), buffer.size(), 0); });
    pid_t pid = 0;
    const bool failed = size <= 0 || std::from_chars(buffer.data(), buffer.data() + size, pid).ec != std::errc();
    return failed ? 0 : pid;
}

/// A killed process is missed, and started again, before the kernel has closed all that it had. True when it has been
/// waited for, or is no more.
bool hasWaitedForItsEnd(pid_t pid)
{
    if (pid <= 0 || pid == ::getpid()) {
        return false;
    }
    const auto process = Descriptor::open([pid] { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U)); });
    if (!process) {
        return errno == ESRCH;
    }
    pollfd end{process.get(), POLLIN, 0};
    return comm::isProcessEnding(pid) && retryInterrupted([&] { return ::poll(&end, 1, LONGEST_END_MS); }) > 0;
}

std::string nameProcess(pid_t pid)
{
    const std::string program = programOf(pid);
    return fmt::format("process {}{}", pid, program.empty() ? "" : " (" + program + ")");
}

/// Of the lock of a process that has ended.
std::string describeHeir(pid_t taker, const struct stat& lockFile)
{
    const pid_t heir = findHeir(lockFile, taker);
    return fmt::format("{}, a child that process {} had made before it ended",
                       heir != 0 ? nameProcess(heir) : "a process that this user may not look into", taker);
}

/// With what is known of it.
std::string describeHolder(pid_t pid, const struct stat& lockFile)
{
    if (pid == 0) {
        return "another process";
    }
    if (pid == ::getpid()) {
        return fmt::format("process {}, which is this one", pid);
    }
    if (::kill(pid, 0) != 0 && errno == ESRCH) {
        return describeHeir(pid, lockFile);
    }
    std::string holder = nameProcess(pid);
    tm local{};
    if (::localtime_r(&lockFile.st_mtim.tv_sec, &local) != nullptr) {
        holder.append(fmt::format(" since {:%Y-%m-%d %H:%M:%S}", local));
    }
    return holder;
}

std::string explainHeld(const std::string& process, const std::string& holder, const struct stat& lockFile)
{
    if (lockFile.st_uid != ::geteuid() && ::geteuid() != 0) {
        return fmt::format(
            "the name \"{}\" is held by {}, and is of the user \"{}\": run as that user once that one has "
            "ended, or take another name; \"kesactl ps\" shows which are taken",
            process, holder, access::userName(lockFile.st_uid));
    }
    return fmt::format("the name \"{}\" is held by {}; end that one and start this one again, or give one of both "
                       "another name; \"kesactl ps\" shows which are taken",
                       process, holder);
}

/// By the kernel's table, in which some file systems have another device than the file; 0 when nobody does, or in
/// another container.
pid_t findHolder(const struct stat& lockFile)
{
    const FileLocks locks = readFileLocks();
    const auto lock = locks.find(lockFile.st_ino);
    return lock == locks.end() ? 0 : lock->second.holder;
}

/// The error's number; 0 when the lock is taken.
int tryLock(const Descriptor& file)
{
    return retryInterrupted([&file] { return ::flock(file.get(), LOCK_EX | LOCK_NB); }) == 0 ? 0 : errno;
}

/// Whether each user's files are his own there.
bool isSticky(const struct stat& directory)
{
    return (directory.st_mode & S_ISVTX) != 0;
}

/// Whoever may put another file in its place may use this one, too: else the name would belong for ever to the user who
/// had it first. With the sticky bit nobody may, and it does: else any of them could hold the names of all.
void share(int lock, int directory)
{
    struct stat folder {};
    struct stat file {};
    const bool isKnown = ::fstat(directory, &folder) == 0;
    const uid_t owner = ::geteuid() == 0 ? folder.st_uid : static_cast<uid_t>(-1);
    const bool isOfItsGroup = isKnown && (::fchown(lock, owner, folder.st_gid) == 0 ||
                                          (::fstat(lock, &file) == 0 && file.st_gid == folder.st_gid));
    const bool isForGroup = isOfItsGroup && (folder.st_mode & S_IWGRP) != 0 && !isSticky(folder);
    ::fchmod(lock, isForGroup ? SHARED_MODE : OWN_MODE);
}

/// Not `O_CREAT` alone: with it the kernel may refuse a file of another user in a directory with the sticky bit.
Descriptor openOrMake(int directory, const std::string& file)
{
    constexpr int FLAGS = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    const auto open = [&](int flags) {
        return openFile([&] { return ::openat(directory, file.c_str(), flags, OWN_MODE); });
    };
    Descriptor opened = open(FLAGS);
    if (opened || errno != ENOENT) {
        return opened;
    }
    opened = open(FLAGS | O_CREAT | O_EXCL);
    if (opened) {
        share(opened.get(), directory);
    } else if (errno == EEXIST) { // by another process in between
        opened = open(FLAGS);
    }
    return opened;
}

/// What it is, if that can be no lock file: its content would be lost. Null if it can.
const char* nameWrongKind(const struct stat& file)
{
    return S_ISLNK(file.st_mode)    ? "is a symbolic link"
           : S_ISDIR(file.st_mode)  ? "is a directory"
           : !S_ISREG(file.st_mode) ? "is no regular file"
           : file.st_nlink > 1      ? "has another name, as a hard link"
                                    : nullptr;
}

bool isWrongKind(const Descriptor& file)
{
    struct stat status {};
    return ::fstat(file.get(), &status) != 0 || nameWrongKind(status) != nullptr;
}

std::string adviseRemoval(int directory, const std::string& encodedName, const std::string& path,
                          const struct stat& file)
{
    struct stat folder {};
    struct stat socket {};
    const uid_t user = ::geteuid();
    const bool isKept = ::fstat(directory, &folder) == 0 && isSticky(folder) && user != 0 && user != folder.st_uid &&
                        user != file.st_uid;
    const bool mayBeHeld = // as by a process of another container, whose socket is there
        S_ISREG(file.st_mode) &&
        ::fstatat(directory, (encodedName + ".sock").c_str(), &socket, AT_SYMLINK_NOFOLLOW) == 0;
    return fmt::format("{} {}, {}", isKept ? fmt::format("have {} remove", access::userName(file.st_uid)) : "remove",
                       util::shellWord(path),
                       mayBeHeld ? "unless a process in another container holds it" : "which nobody holds");
}

/// Of the file that stands there now.
[[nodiscard]] bool takeLock(const Descriptor& directory, const std::string& process, Descriptor& lock, bool& isHeld,
                            std::string& why)
{
    const std::string encodedName = encodeProcessName(process);
    const std::string file = encodedName + ENDING;
    Descriptor opened = openOrMake(directory.get(), file);
    if (!opened || isWrongKind(opened)) {
        const int error = opened ? 0 : errno;
        const LockFileProblem problem = examineLockFile(directory.get(), encodedName);
        isHeld = problem.isHeld || problem.isOfAnother;
        why = problem.text.empty() || !problem.isForThisUser
                  ? fmt::format("cannot open {}: {}", pathOf(directory.get(), file), obr::explainError(error))
                  : problem.sentence();
        return true;
    }
    int error = tryLock(opened);
    // More than once: whoever was killed before it had written its number left the one of the holder before.
    for (int attempt = 0; attempt < 3 && error == EWOULDBLOCK; ++attempt) {
        struct stat status {};
        const bool hasEnded = hasWaitedForItsEnd(readHolder(opened.get())) ||
                              (::fstat(opened.get(), &status) == 0 && hasWaitedForItsEnd(findHolder(status)));
        if (!hasEnded) {
            break;
        }
        error = tryLock(opened);
    }
    if (error != 0) {
        struct stat status {};
        isHeld = error == EWOULDBLOCK && ::fstat(opened.get(), &status) == 0;
        why = isHeld ? explainHeld(process, describeHolder(readHolder(opened.get()), status), status)
                     : fmt::format("cannot lock {}: {}", pathOf(directory.get(), file), obr::explainError(error));
        return true;
    }
    lock = std::move(opened);
    return false;
}

} // namespace

std::string nameLockFile(const std::string& process)
{
    return encodeProcessName(process) + ENDING;
}

bool isNameLockThere(int directory, const std::string& process, int lock)
{
    struct stat locked {};
    struct stat present {};
    const std::string file = nameLockFile(process);
    return ::fstat(lock, &locked) == 0 && ::fstatat(directory, file.c_str(), &present, AT_SYMLINK_NOFOLLOW) == 0 &&
           locked.st_ino == present.st_ino && locked.st_dev == present.st_dev;
}

bool takeNameLock(const Descriptor& directory, const std::string& process, Descriptor& lock, bool& isHeld,
                  std::string& why)
{
    constexpr int ATTEMPTS = 8; // whoever replaces the file each time is not served
    isHeld = false;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        if (takeLock(directory, process, lock, isHeld, why)) {
            return true;
        }
        if (isNameLockThere(directory.get(), process, lock.get())) {
            return false;
        }
    }
    lock.reset();
    why = fmt::format("somebody removes {} again and again", pathOf(directory.get(), nameLockFile(process)));
    return true;
}

pid_t findNameHolder(const std::string& directory, const std::string& process)
{
    struct stat status {};
    const std::string path = directory + '/' + encodeProcessName(process) + ENDING;
    return ::lstat(path.c_str(), &status) == 0 ? findHolder(status) : 0;
}

LockFileProblem examineLockFile(int directory, const std::string& encodedName)
{
    const std::string file = encodedName + ENDING;
    const std::string path = pathOf(directory, file);
    struct stat status {};
    struct stat folder {};
    if (::fstatat(directory, file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 || ::fstat(directory, &folder) != 0) {
        return {};
    }
    LockFileProblem problem;
    const std::string rights =
        fmt::format("{}'s, mode {:04o}", access::userName(status.st_uid), status.st_mode & 07777U);
    const bool isShared = status.st_gid == folder.st_gid && (status.st_mode & SHARED_MODE) == SHARED_MODE;
    if (const char* const kind = nameWrongKind(status)) {
        problem.text = fmt::format("{} {}", path, kind);
    } else if (::faccessat(directory, file.c_str(), R_OK | W_OK, AT_EACCESS) != 0) {
        const int error = errno;
        problem.isOfAnother = isSticky(folder) && status.st_uid != ::geteuid();
        problem.owner = problem.isOfAnother ? access::userName(status.st_uid) : "";
        problem.text = problem.isOfAnother
                           ? fmt::format("the name \"{}\" is of the user \"{}\", whose lock file {} is: run as that "
                                         "user, or take another name",
                                         encodedName, problem.owner, path)
                           : fmt::format("cannot open {}: {}, it is {}", path, obr::explainError(error), rights);
    } else if ((folder.st_mode & S_IWGRP) != 0 && !isSticky(folder) && !isShared) {
        problem.isForThisUser = false;
        problem.text = fmt::format("{} is {}, so nobody else can have the name", path, rights);
    } else {
        return {};
    }
    if (const pid_t holder = findHolder(status); holder != 0) {
        problem.isHeld = true;
        problem.text = explainHeld(encodedName, describeHolder(holder, status), status);
    } else if (problem.isOfAnother) {
        const std::string socket = encodedName + ".sock"; // or what keeps its place
        const bool isPlaceTaken = ::faccessat(directory, socket.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
        problem.advice = fmt::format("if it is not kept for that user, have \"{}\" or root remove {}{}", problem.owner,
                                     util::shellWord(path),
                                     isPlaceTaken ? " and " + util::shellWord(pathOf(directory, socket)) : "");
    } else {
        problem.advice = adviseRemoval(directory, encodedName, path, status);
    }
    return problem;
}

} // namespace kesa::commadapter::transport
