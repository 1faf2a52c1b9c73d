// Who has a name is read from the kernel's table of locks: to try the lock would refuse the name to a process that is
// just starting.
#include "RunDirectoryFacts.h"

#include "nameHolders.h"

#include <rules/usersAndGroups.h>
#include <transport/Descriptor.h>
#include <transport/RunDirectory.h>
#include <transport/fileLocks.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/un.h>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <set>
#include <system_error>
#include <tuple>

namespace kesactl {
namespace {

using kesa::access::groupName;
using kesa::access::userName;
using kesa::commadapter::transport::Descriptor;
using kesa::commadapter::transport::FileLocks;
using kesa::commadapter::transport::readFileLocks;

/// What the holder of a lock has written into its file; 0 when it cannot be read.
pid_t readPid(int directory, const std::string& file)
{
    const auto opened = Descriptor::open(
        [&] { return ::openat(directory, file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK); });
    char text[16] = {};
    const ssize_t size = opened ? ::read(opened.get(), text, sizeof text - 1) : 0;
    pid_t pid = 0;
    return size > 0 && std::sscanf(text, "%d", &pid) == 1 ? pid : 0;
}

/// The process that took the lock may have ended, and left it to a child.
void findHeir(RunDirectoryFacts::Name& name, int directory)
{
    struct stat status {};
    const pid_t taker = name.holder != 0 ? name.holder : name.listener;
    if (taker == 0 || ::fstatat(directory, (name.name + ".lock").c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return;
    }
    if (const pid_t heir = kesa::commadapter::transport::findHeir(status, taker); heir != 0) {
        name.holder = heir;
        name.heirOf = taker;
    }
}

/// Some file systems give the table another device than the file: then the number in the file has to be the same.
pid_t findHolder(const FileLocks& locks, int directory, const std::string& file)
{
    struct stat status {};
    if (::fstatat(directory, file.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return 0;
    }
    const auto [begin, end] = locks.equal_range(status.st_ino);
    for (auto lock = begin; lock != end; ++lock) {
        if (lock->second.device == status.st_dev || lock->second.holder == readPid(directory, file)) {
            return lock->second.holder;
        }
    }
    return 0;
}

std::string kindOf(const struct stat& status)
{
    return S_ISSOCK(status.st_mode)                             ? ""
           : S_ISDIR(status.st_mode)                            ? "a directory"
           : S_ISLNK(status.st_mode)                            ? "a symbolic link"
           : S_ISFIFO(status.st_mode)                           ? "a pipe"
           : S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode) ? "a device"
                                                                : "a file";
}

std::string rightsOf(const struct stat& status)
{
    std::string text = S_ISDIR(status.st_mode) ? "d" : S_ISSOCK(status.st_mode) ? "s" : "-";
    for (int bit = 8; bit >= 0; --bit) {
        text += (status.st_mode >> static_cast<unsigned>(bit) & 1U) != 0 ? "xwr"[bit % 3] : '-';
    }
    const std::tuple<mode_t, std::size_t, char> special[] = {{S_ISUID, 3, 's'}, {S_ISGID, 6, 's'}, {S_ISVTX, 9, 't'}};
    for (const auto& [bit, place, letter] : special) { // as ls has them
        if ((status.st_mode & bit) != 0) {
            text[place] = text[place] == 'x' ? letter : static_cast<char>(std::toupper(letter));
        }
    }
    return fmt::format("{} {} {}", text, userName(status.st_uid), groupName(status.st_gid));
}

/// A longer path than the 108 bytes of a socket's address goes through the descriptor of its file; where that cannot
/// be, without /proc, it cannot be told who listens. `listener`: who does.
int tryConnect(const std::string& folder, int directory, const std::string& file, pid_t& listener)
{
    const auto opened =
        Descriptor::open([&] { return ::openat(directory, file.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC); });
    const auto socket =
        Descriptor::open([] { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); });
    if (!opened || !socket) {
        return errno;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string path = fmt::format("{}/{}", folder, file);
    if (path.size() >= sizeof address.sun_path) {
        path = fmt::format("/proc/self/fd/{}", opened.get());
        if (::access(path.c_str(), F_OK) != 0) {
            return 0;
        }
    }
    path.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
    const bool isConnected = ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ucred peer{};
    socklen_t size = sizeof peer;
    if (isConnected && ::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0) {
        listener = peer.pid;
    }
    return isConnected || errno == EAGAIN ? 0 : errno; // EAGAIN: others wait to be accepted
}

/// What stands where the process of the name listens. Where each user's files are his own, an empty file keeps the name
/// for its user, and another user's keeps him out, unless he owns the directory.
void readSocket(RunDirectoryFacts::Name& name, const std::string& folder, int directory, const struct stat& status)
{
    const std::string file = name.name + ".sock";
    struct stat socket {};
    struct stat lock {};
    name.hasSocket = ::fstatat(directory, file.c_str(), &socket, AT_SYMLINK_NOFOLLOW) == 0;
    if (!name.hasSocket) {
        return;
    }
    const bool isSticky = (status.st_mode & S_ISVTX) != 0;
    const bool hasUser = isSticky &&
                         ::fstatat(directory, (name.name + ".lock").c_str(), &lock, AT_SYMLINK_NOFOLLOW) == 0 &&
                         lock.st_uid != 0 && lock.st_uid != status.st_uid;
    name.maker = isSticky ? userName(socket.st_uid) : "";
    if (hasUser && socket.st_uid != lock.st_uid) {
        name.keptOut = userName(lock.st_uid);
    } else if (isSticky && S_ISREG(socket.st_mode) && socket.st_size == 0) {
        name.hasSocket = false;
        return;
    }
    name.rights = rightsOf(socket);
    name.kind = kindOf(socket);
    name.connectError = tryConnect(folder, directory, file, name.listener);
}

/// The part before the ending; empty for a file without it.
std::string withoutEnding(const std::string& file, std::string_view ending)
{
    const bool has = file.size() > ending.size() && file.front() != '.' &&
                     file.compare(file.size() - ending.size(), ending.size(), ending) == 0;
    return has ? file.substr(0, file.size() - ending.size()) : "";
}

void readRealm(RunDirectoryFacts& facts, int directory)
{
    using Realm = RunDirectoryFacts::Realm;
    const auto file = kesa::commadapter::transport::readRealmFile(directory);
    facts.realm = file.realm;
    facts.realmState = file.error == ENOENT  ? Realm::eMISSING
                       : file.error != 0     ? Realm::eUNREADABLE
                       : facts.realm.empty() ? Realm::eBAD
                                             : Realm::eGOOD;
}

/// The processes that were here before somebody removed their files, after those that are here.
void addLost(RunDirectoryFacts& facts)
{
    std::error_code failed;
    const std::string path = std::filesystem::weakly_canonical(facts.path, failed).string();
    for (const NameHolder& holder : findNameHolders()) {
        if (!holder.isLost || holder.directory != path) {
            continue;
        }
        const auto reached = std::find_if(facts.names.begin(), facts.names.end(),
                                          [&holder](const auto& name) { return name.listener == holder.pid; });
        if (reached != facts.names.end()) { // only its lock file was removed
            reached->holder = holder.pid;
            reached->isLost = true;
            continue;
        }
        RunDirectoryFacts::Name name;
        name.name = holder.name;
        name.holder = holder.pid;
        name.isLost = true;
        facts.names.push_back(name);
    }
}

} // namespace

/// Of a file system that does not count them it is not known.
Room::Room(const std::string& directory)
{
    struct statvfs system {};
    if (::statvfs(directory.c_str(), &system) != 0) {
        return;
    }
    const bool isRoot = ::geteuid() == 0; // some is kept for it
    hasNone = system.f_files != 0 && (isRoot ? system.f_ffree : system.f_favail) == 0;
    hasNoneForContent = hasNone || (system.f_blocks != 0 && (isRoot ? system.f_bfree : system.f_bavail) == 0);
}

RunDirectoryFacts::RunDirectoryFacts(const std::string& directoryPath) : path(directoryPath)
{
    const auto directory = Descriptor::open([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    struct stat status {};
    if (!directory || ::fstat(directory.get(), &status) != 0) {
        error = errno;
        rights = ::stat(path.c_str(), &status) == 0 ? rightsOf(status) : "";
        addLost(*this);
        return;
    }
    device = status.st_dev;
    inode = status.st_ino;
    rights = rightsOf(status);
    group = groupName(status.st_gid);
    isWritable = ::faccessat(directory.get(), ".", W_OK | X_OK, AT_EACCESS) == 0;
    writeError = isWritable ? 0 : errno;
    if (isWritable) {
        distrust = kesa::commadapter::transport::findDistrust(path, status);
    }
    if (::faccessat(directory.get(), ".", X_OK, AT_EACCESS) != 0) { // its names can be listed, and no more
        error = errno;
        return;
    }
    readRealm(*this, directory.get());
    const Room room(path);
    if (isWritable && (room.hasNone || (realmState == Realm::eMISSING && room.hasNoneForContent))) {
        writeError = ENOSPC;
    }
    std::set<std::string> used;
    std::error_code failed;
    for (const auto& entry : std::filesystem::directory_iterator(path, failed)) {
        const std::string file = entry.path().filename().string();
        const std::string ofLock = withoutEnding(file, ".lock");
        const std::string ofSocket = withoutEnding(file, ".sock");
        if (!ofLock.empty() || !ofSocket.empty()) {
            used.insert(ofLock.empty() ? ofSocket : ofLock);
        } else if (file != "realm") {
            strays.push_back(file);
        }
    }
    std::sort(strays.begin(), strays.end());
    const FileLocks locks = readFileLocks();
    for (const std::string& process : used) {
        Name name;
        name.name = process;
        name.holder = findHolder(locks, directory.get(), process + ".lock");
        readSocket(name, path, directory.get(), status);
        findHeir(name, directory.get());
        if (name.hasSocket || name.holder != 0) {
            names.push_back(name);
        }
        const auto problem = kesa::commadapter::transport::examineLockFile(directory.get(), process);
        if (isWritable && name.holder == 0 && !problem.text.empty()) {
            refused.push_back({process, problem});
        }
    }
    addLost(*this);
}

std::string RunDirectoryFacts::beforeStart(const std::string& process) const
{
    if (writeError == ENOSPC) {
        return fmt::format("make room in {}, whose file system is full (df, df -i), then ", path);
    }
    const auto found = std::find_if(refused.begin(), refused.end(), [&process](const Refusal& each) {
        return each.name == process && each.problem.isForThisUser && !each.problem.advice.empty();
    });
    return found == refused.end()       ? ""
           : found->problem.isOfAnother ? fmt::format("as the user {}, whose name that is, ", found->problem.owner)
                                        : found->problem.advice + ", then ";
}

} // namespace kesactl
