// Who has a name is decided by the lock on `<process>.lock` alone: the kernel gives it back when its holder dies,
// however that happens, and it belongs to one opening of the file, so a second claim in the same process is refused as
// well. The file is never removed, or two processes could hold locks on two files of one name. Only the holder of the
// lock touches
// `<process>.sock`: a socket left by a dead process is simply replaced.

#include "transport/NameClaim.h"

#include "transport/Authority.h"

#include <comm/processStart.h>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <fmt/chrono.h>

#include <array>
#include <charconv>
#include <ctime>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace kesa::commadapter::transport {

namespace {

constexpr mode_t LOCK_MODE = 0600;
/// The kernel lowers it to its own limit.
constexpr int BACKLOG = 4096;
/// What the kernel needs for a large process on a busy machine.
constexpr int LONGEST_END_MS = 2000;

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
pid_t holderOf(int lockFile)
{
    std::array<char, 16> buffer;
    const ssize_t size = retryInterrupted([&] { return ::pread(lockFile, buffer.data(), buffer.size(), 0); });
    pid_t pid = 0;
    const bool failed = size <= 0 || std::from_chars(buffer.data(), buffer.data() + size, pid).ec != std::errc();
    return failed ? 0 : pid;
}

/// A killed process is missed, and started again, before the kernel has closed all that it had. True when it has been
/// waited for.
bool hasWaitedForItsEnd(pid_t pid)
{
    if (pid <= 0 || pid == ::getpid() || !comm::isProcessEnding(pid)) {
        return false;
    }
    const Descriptor process(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U)));
    pollfd end{process.get(), POLLIN, 0};
    return !process || retryInterrupted([&] { return ::poll(&end, 1, LONGEST_END_MS); }) > 0;
}

/// With what is known of it.
std::string describeHolder(int lockFile)
{
    const pid_t pid = holderOf(lockFile);
    if (pid == 0) {
        return "another process";
    }
    if (pid == ::getpid()) {
        return fmt::format("process {}, which is this one", pid);
    }
    const std::string program = programOf(pid);
    std::string holder = fmt::format("process {}{}", pid, program.empty() ? "" : " (" + program + ")");
    struct stat status {};
    tm local{};
    if (::fstat(lockFile, &status) == 0 && ::localtime_r(&status.st_mtim.tv_sec, &local) != nullptr) {
        holder.append(fmt::format(" since {:%Y-%m-%d %H:%M:%S}", local));
    }
    return holder;
}

/// The error's number; 0 when the lock is taken.
int tryLock(const Descriptor& file)
{
    return retryInterrupted([&file] { return ::flock(file.get(), LOCK_EX | LOCK_NB); }) == 0 ? 0 : errno;
}

/// Opens the lock file of a name and takes its lock. True on failure.
bool openLocked(const Descriptor& directory, const std::string& process, Descriptor& lock, bool& isHeld,
                std::string& why)
{
    isHeld = false;
    const std::string file = encodeProcessName(process) + ".lock";
    Descriptor opened(retryInterrupted(
        [&] { return ::openat(directory.get(), file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, LOCK_MODE); }));
    if (!opened) {
        why = fmt::format("cannot open \"{}\" in the run directory: {}; it belongs to who used the name \"{}\" first",
                          file, std::system_category().message(errno), process);
        return true;
    }
    int error = tryLock(opened);
    if (error == EWOULDBLOCK && hasWaitedForItsEnd(holderOf(opened.get()))) {
        error = tryLock(opened);
    }
    if (error != 0) {
        isHeld = error == EWOULDBLOCK;
        why = isHeld ? fmt::format("the name \"{}\" is held by {}; end that one, or give one of both another name; "
                                   "\"kesactl ps\" shows which are taken",
                                   process, describeHolder(opened.get()))
                     : fmt::format("cannot lock \"{}\" in the run directory: {}", file,
                                   std::system_category().message(error));
        return true;
    }
    lock = std::move(opened);
    return false;
}

} // namespace

std::optional<gid_t> findGroup(const std::string& name)
{
    gid_t number = 0;
    const auto parsed = std::from_chars(name.data(), name.data() + name.size(), number);
    if (parsed.ec == std::errc() && parsed.ptr == name.data() + name.size()) {
        return number;
    }
    std::vector<char> buffer(1024);
    group entry{};
    group* found = nullptr;
    int error = 0;
    while ((error = ::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE) {
        buffer.resize(buffer.size() * 2);
    }
    return error == 0 && found != nullptr ? std::optional(found->gr_gid) : std::nullopt;
}

std::string groupName(gid_t number)
{
    std::array<char, 16384> buffer{};
    group entry{};
    group* found = nullptr;
    const bool isKnown = ::getgrgid_r(number, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr;
    return isKnown ? found->gr_name : std::to_string(number);
}

bool isSharedGroup(uid_t owner, gid_t group)
{
    constexpr uid_t FIRST_PERSON = 1000; // those below are of services
    return group != 0 && (group != owner || owner < FIRST_PERSON);
}

std::string socketFileName(const std::string& process)
{
    return encodeProcessName(process) + ".sock";
}

NameClaim::NameClaim(Descriptor directory, const std::string& process)
    : m_directory(std::move(directory)), m_process(process), m_file(socketFileName(process))
{}

std::unique_ptr<NameClaim> NameClaim::take(Descriptor directory, const std::string& process,
                                           const IpcSettings& settings, std::string& why)
{
    std::unique_ptr<NameClaim> claim(new NameClaim(std::move(directory), process));
    if (claim->lock(why) || claim->listen(settings, why)) {
        return nullptr;
    }
    return claim;
}

bool NameClaim::isRefused(const Descriptor& directory, const std::string& process, bool& isHeld, std::string& why)
{
    Descriptor lock;
    return openLocked(directory, process, lock, isHeld, why);
}

bool NameClaim::lock(std::string& why)
{
    bool isHeld = false;
    if (openLocked(m_directory, m_process, m_lock, isHeld, why)) {
        return true;
    }
    // For whoever is refused; the claim does not depend on it.
    const std::string pid = fmt::format("{}\n", ::getpid());
    if (::ftruncate(m_lock.get(), 0) == 0) {
        static_cast<void>(retryInterrupted([&] { return ::pwrite(m_lock.get(), pid.data(), pid.size(), 0); }));
    }
    return false;
}

/// The socket gets its rights under a name nobody looks for, and appears under its own when one can connect to it.
bool NameClaim::listen(const IpcSettings& settings, std::string& why)
{
    m_socket = Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!m_socket) {
        why = fmt::format("cannot make a socket: {}", std::system_category().message(errno));
        return true;
    }
    // Accepted sockets inherit it. Setting it on them would be too late for a peer that writes in between.
    const int on = 1;
    ::setsockopt(m_socket.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on);

    // A name of many encoded bytes is cut, for the length of socket addresses; the lock's number keeps it unique.
    const std::string temporary =
        fmt::format(".{:.40}.{}.{}.tmp", encodeProcessName(m_process), ::getpid(), m_lock.get());
    ::unlinkat(m_directory.get(), temporary.c_str(), 0);
    bool failed = bindHidden(temporary, settings, why);
    struct stat status {};
    if (!failed && (::listen(m_socket.get(), BACKLOG) != 0 ||
                    ::fstatat(m_directory.get(), temporary.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
                    ::renameat(m_directory.get(), temporary.c_str(), m_directory.get(), m_file.c_str()) != 0)) {
        why = fmt::format("cannot listen at \"{}\" in the run directory: {}", m_file,
                          std::system_category().message(errno));
        failed = true;
    }
    if (failed) {
        ::unlinkat(m_directory.get(), temporary.c_str(), 0);
        return true;
    }
    m_inode = status.st_ino;
    return false;
}

bool NameClaim::bindHidden(const std::string& temporary, const IpcSettings& settings, std::string& why) const
{
    const auto refuse = [&](const char* what) {
        why = fmt::format("{} the socket \"{}\" in the run directory: {}", what, m_file,
                          std::system_category().message(errno));
        return true;
    };
    // Through the directory's descriptor: a socket's address has 108 bytes, whatever the path of the directory has.
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = fmt::format("/proc/self/fd/{}/{}", m_directory.get(), temporary);
    path.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
    if (::bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return refuse("cannot bind");
    }
    if (!settings.socketGroup.empty()) {
        const auto group = findGroup(settings.socketGroup);
        if (!group) {
            why = fmt::format("there is no group \"{}\"; see \"socket_group\"", settings.socketGroup);
            return true;
        }
        if (::fchownat(m_directory.get(), temporary.c_str(), static_cast<uid_t>(-1), *group, AT_SYMLINK_NOFOLLOW) !=
            0) {
            return refuse("cannot give its group to");
        }
    }
    if (::fchmodat(m_directory.get(), temporary.c_str(), settings.socketMode, 0) != 0) {
        return refuse("cannot give its mode to");
    }
    return false;
}

NameClaim::~NameClaim()
{
    if (!m_lock.isHere()) {
        return;
    }
    struct stat status {};
    if (m_inode != 0 && ::fstatat(m_directory.get(), m_file.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        status.st_ino == m_inode) {
        ::unlinkat(m_directory.get(), m_file.c_str(), 0);
    }
    m_socket.reset();
    static_cast<void>(::ftruncate(m_lock.get(), 0));
    // Explicitly: a child that is between `fork` and its first instruction still shares the lock.
    ::flock(m_lock.get(), LOCK_UN);
}

} // namespace kesa::commadapter::transport
