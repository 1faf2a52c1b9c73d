// Processes find each other in the run directory. Who listens has a socket there (IpcListener.cpp). A client connects
// to it, and where there is none waits for its file to appear (EndpointWatch.cpp). The file `realm` says which run
// directory a locator means; locators of another one, on another host or in another container, are not handled here
// (RunDirectory.cpp).

#include "transport/IpcTransport.h"

#include "transport/Authority.h"
#include "transport/EndpointWatch.h"
#include "transport/IpcListener.h"
#include "transport/IpcStream.h"
#include "transport/NameClaim.h"
#include "transport/NameLock.h"
#include "transport/PeerProcess.h"
#include "transport/RunDirectory.h"
#include "transport/ipcChannel.h"
#include "transport/whoMayListen.h"
#include <rules/usersAndGroups.h>

#include <comm/processStart.h>
#include <obr/GlobalErrorHandler.h>
#include <obr/explainError.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <fmt/format.h>

#include <map>
#include <utility>

namespace kesa::commadapter::transport {

namespace {

constexpr std::size_t MOST_TRIED = 1024;

/// Why a socket or directory may not be used, and what to do.
ITransport::Connected forbid(const std::string& path, const struct stat& status)
{
    const bool isDirectory = S_ISDIR(status.st_mode);
    const std::string joining = access::adviseJoining(path, isDirectory ? S_IXGRP : S_IWGRP);
    const std::string advice = !joining.empty() ? joining
                               : isDirectory
                                   ? "its owner has to let a group of this user use it"
                                   : R"(let a group of both use it: "socket_group" and "socket_mode" of that process)";
    return {nullptr, ITransport::Failure::eFORBIDDEN,
            fmt::format("no right to use \"{}\", which has the group \"{}\" and mode {:04o}; {}", path,
                        access::groupName(status.st_gid), status.st_mode & 07777U, advice)};
}

Descriptor makeSocket()
{
    return Descriptor::open([] { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); });
}

/// Through the descriptor of its file: a socket's address has 108 bytes, whatever the path has.
int connectTo(const Descriptor& file, const Descriptor& socket)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string link = fmt::format("/proc/self/fd/{}", file.get());
    link.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
    return retryInterrupted(
        [&] { return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address); });
}

/// Tells one socket file from the next one of the same name; all zero: there is none.
struct SocketFile {
    dev_t device = 0;
    ino_t inode = 0;
    std::int64_t changed = 0;

    explicit SocketFile() = default;
    explicit SocketFile(const struct stat& status)
        : device(status.st_dev), inode(status.st_ino),
          changed(std::int64_t{status.st_ctim.tv_sec} * comm::SECOND + status.st_ctim.tv_nsec)
    {}
    bool operator==(const SocketFile&) const = default;
};

class IpcTransport final : public ITransport {
public:
    IpcTransport(const IpcSettings& settings, std::shared_ptr<comm::Reactor> loop)
        : m_loop(std::move(loop)), m_runDirectory(settings.runDir), m_self(std::make_shared<IpcTransport*>(this)),
          m_endpoints(m_loop, m_runDirectory.path(), &IpcTransport::traceUnwatched),
          m_listener(settings, m_loop, m_runDirectory)
    {}

    std::string scheme() const override { return "ipc"; }
    std::string runDirectory() const override { return m_runDirectory.path(); }
    std::string runDirectorySource() const override { return m_runDirectory.source(); }
    bool listen(const std::string& process, Accept accept, std::string& why) override
    {
        return m_listener.listen(process, std::move(accept), why);
    }
    std::optional<Endpoint> ownEndpoint() const override { return m_listener.ownEndpoint(); }
    void watchOwnEndpoint() override { m_listener.watchOwnFiles(); }
    bool isStopped(const PeerIdentity& peer) const override
    {
        return comm::isProcessStopped(static_cast<pid_t>(peer.pid));
    }
    std::string whoCannotBeFound(const Endpoint& endpoint) const override;
    PeerIdentity whoListens(const std::string& process) const override;
    std::optional<Endpoint> parse(const url& locator) const override { return parseProcessAuthority(locator, "ipc"); }
    bool canHandle(const Endpoint& endpoint) const override
    {
        int ignored = 0;
        return judge(endpoint, ignored) != RunDirectory::Realm::eOTHER;
    }
    void connect(const Endpoint& endpoint, util::UniqueFunction<void(Connected)> done) override;
    comm::Reactor::Id watchEndpoint(const Endpoint& endpoint, util::UniqueFunction<void()> appeared) override;
    void unwatchEndpoint(comm::Reactor::Id id) override
    {
        onLoop(__func__);
        m_endpoints.remove(id);
    }
    comm::TimeNs longestPause() const noexcept override { return comm::SECOND; }
    void close() override
    {
        onLoop(__func__);
        m_self.reset();
        m_endpoints.clear();
        m_listener.close();
    }

private:
    void onLoop(const char* function) const
    {
        obr::GlobalErrorHandler::doAssert(m_loop->isCurrent(), "m_loop->isCurrent()", __FILE__, __LINE__, function,
                                          "only on the loop of the transport");
    }
    RunDirectory::Realm judge(const Endpoint& endpoint, int& error) const;
    Connected open(const Endpoint& endpoint);
    void tried(const Endpoint& endpoint, const SocketFile& file);
    Connected miss(const Endpoint& endpoint, const SocketFile& file);
    static void traceUnwatched(const std::string& why);

    const std::shared_ptr<comm::Reactor> m_loop;
    mutable RunDirectory m_runDirectory;

    // The loop's own.
    /// What is posted holds it weakly, and does nothing once the transport is closed.
    std::shared_ptr<IpcTransport*> m_self;
    EndpointWatch m_endpoints;
    std::map<std::string, SocketFile> m_tried; ///< what the last connect to a process found
    bool m_isUnwatchedTraced = false;
    IpcListener m_listener;
};

/// Judged by the caller before the next one is opened: of many, all but those that he keeps are closed at once.
void IpcTransport::connect(const Endpoint& endpoint, util::UniqueFunction<void(Connected)> done)
{
    onLoop(__func__);
    m_loop->post([weak = std::weak_ptr(m_self), endpoint, done = std::move(done)]() mutable {
        if (const auto self = weak.lock()) {
            done((*self)->open(endpoint));
        }
    });
}

RunDirectory::Realm IpcTransport::judge(const Endpoint& endpoint, int& error) const
{
    if (endpoint.scheme != "ipc") {
        return RunDirectory::Realm::eOTHER;
    }
    // What this process provides stays its own, whatever becomes of the directory.
    if (endpoint.realm.empty() || m_listener.isOwn(endpoint)) {
        return RunDirectory::Realm::eOURS;
    }
    return m_runDirectory.judge(endpoint.realm, error);
}

ITransport::Connected IpcTransport::open(const Endpoint& endpoint)
{
    const auto refuse = [](Failure failure, const char* what) {
        return Connected{nullptr, failure, fmt::format("{}: {}", what, obr::explainError(errno))};
    };
    int error = 0;
    const RunDirectory::Realm realm = judge(endpoint, error);
    if (realm == RunDirectory::Realm::eOTHER) {
        return {nullptr, Failure::eOTHER, "the locator is of another realm"};
    }
    const auto maySearch = [this] {
        return ::faccessat(AT_FDCWD, m_runDirectory.path().c_str(), X_OK, AT_EACCESS) == 0;
    };
    if (realm == RunDirectory::Realm::eUNKNOWN && (error != EACCES || maySearch())) { // else see below
        errno = error;
        return refuse(Failure::eOTHER, "cannot read which realm the run directory has");
    }
    const std::string path = m_runDirectory.path() + '/' + socketFileName(endpoint.process);
    const auto file = openFile([&] { return ::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC); });
    struct stat status {};
    if (!file) {
        if (errno == EACCES && ::stat(m_runDirectory.path().c_str(), &status) == 0) {
            return forbid(m_runDirectory.path(), status);
        }
        return errno == ENOENT || errno == ENOTDIR ? miss(endpoint, SocketFile())
                                                   : refuse(Failure::eOTHER, "cannot look into the run directory");
    }
    ::fstat(file.get(), &status);
    if (S_ISREG(status.st_mode)) { // see NameClaim.cpp
        return miss(endpoint, SocketFile(status));
    }
    auto socket = makeSocket();
    if (!socket) {
        return refuse(Failure::eOTHER, "cannot make a socket");
    }
    if (connectTo(file, socket) != 0) {
        switch (errno) {
        case EAGAIN:
            return refuse(Failure::eBUSY, "too many connections wait to be accepted");
        case EACCES:
            return forbid(path, status);
        case ENOENT:
            return miss(endpoint, SocketFile(status));
        case ECONNREFUSED: {
            // Of a dead process, or of one that is between bind and listen, which no watch would tell of.
            Connected silent = miss(endpoint, SocketFile(status));
            silent.failure = Failure::eSILENT;
            silent.reason = fmt::format("nobody listens on the socket of \"{}\" in \"{}\"", endpoint.process,
                                        m_runDirectory.shownPath());
            return silent;
        }
        default:
            return refuse(Failure::eOTHER, "cannot connect");
        }
    }
    tried(endpoint, SocketFile(status));
    auto stream = m_listener.makeStream(std::move(socket));
    std::string why = complaintAboutListener(m_runDirectory.path(), endpoint.process, status, stream->peer());
    if (!why.empty()) {
        return {nullptr, Failure::eOTHER, std::move(why)};
    }
    return {std::move(stream), Failure::eOTHER, {}};
}

void IpcTransport::tried(const Endpoint& endpoint, const SocketFile& file)
{
    if (m_tried.size() >= MOST_TRIED) {
        m_tried.clear(); // costs a watcher one attempt too many
    }
    m_tried[endpoint.process] = file;
}

/// Where the file of the lock was removed as well, all processes of the machine would have to be looked into, which is
/// for a tool.
std::string IpcTransport::whoCannotBeFound(const Endpoint& endpoint) const
{
    struct stat status {};
    const std::string path = m_runDirectory.path() + '/' + socketFileName(endpoint.process);
    const bool isGone = ::lstat(path.c_str(), &status) != 0 && errno == ENOENT;
    const pid_t holder = isGone ? findNameHolder(m_runDirectory.path(), endpoint.process) : 0;
    return holder == 0 ? std::string()
                       : fmt::format("process {} has that name, but somebody has removed its socket; restart it, and "
                                     "keep cleaners out of the run directory",
                                     holder);
}

/// Whoever it is takes it for a client that goes at once.
PeerIdentity IpcTransport::whoListens(const std::string& process) const
{
    onLoop(__func__);
    const std::string path = m_runDirectory.path() + '/' + socketFileName(process);
    const auto file = openFile([&] { return ::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC); });
    PeerIdentity nobody;
    nobody.pid = 0;
    if (!file) {
        return errno == ENOENT || errno == ENOTDIR ? nobody : PeerIdentity();
    }
    const auto socket = makeSocket();
    struct stat status {};
    if (!socket || connectTo(file, socket) != 0 || ::fstat(file.get(), &status) != 0) {
        return socket && errno == ECONNREFUSED ? nobody : PeerIdentity();
    }
    PeerIdentity listener = identityOf(socket.get());
    if (!complaintAboutListener(m_runDirectory.path(), process, status, listener).empty()) {
        return nobody;
    }
    const PeerProcess alive = openPeerProcess(socket.get(), listener.pid);
    listener.start = alive.start;
    return alive.start != 0 ? listener : PeerIdentity();
}

ITransport::Connected IpcTransport::miss(const Endpoint& endpoint, const SocketFile& file)
{
    tried(endpoint, file);
    m_listener.lookForOwnFiles();
    const std::string shown = m_runDirectory.shownPath();
    if (::access(m_runDirectory.path().c_str(), F_OK) != 0) {
        return {nullptr, Failure::eMISSING,
                fmt::format("the run directory \"{}\" is not there, so nobody listens", shown)};
    }
    return {nullptr, Failure::eMISSING,
            fmt::format("no process listens as \"{}\" in \"{}\"{}", endpoint.process, shown,
                        m_runDirectory.lacksRealm() ? ", which is empty or was emptied" : "")};
}

void IpcTransport::traceUnwatched(const std::string& why)
{
    KESA_TRACE_TEXT(
        IPC_CHANNEL, 3,
        fmt::format("[watch] a process that starts is found up to a second later than it could be: {}", why));
}

comm::Reactor::Id IpcTransport::watchEndpoint(const Endpoint& endpoint, util::UniqueFunction<void()> appeared)
{
    onLoop(__func__);
    if (!canHandle(endpoint)) {
        return 0;
    }
    const std::string file = socketFileName(endpoint.process);
    std::string why;
    const comm::Reactor::Id id = m_endpoints.add(file, std::move(appeared), why);
    const bool isUnwatched = id == 0;
    if (!std::exchange(m_isUnwatchedTraced, isUnwatched) && isUnwatched) {
        traceUnwatched(why);
    }
    if (isUnwatched) {
        return 0;
    }
    // It may have appeared between the last connect and this call. A file that has been tried already does
    // not count: it may lie there for ever.
    struct stat status {};
    if (::lstat((m_runDirectory.path() + '/' + file).c_str(), &status) == 0) {
        const auto tried = m_tried.find(endpoint.process);
        if (tried == m_tried.end() || tried->second != SocketFile(status)) {
            m_endpoints.notify(id);
        }
    }
    return id;
}

} // namespace

std::unique_ptr<ITransport> makeIpcTransport(const IpcSettings& settings, std::shared_ptr<comm::Reactor> loop)
{
    return std::make_unique<IpcTransport>(settings, std::move(loop));
}

} // namespace kesa::commadapter::transport
