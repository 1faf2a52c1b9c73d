// Processes find each other in the run directory. A process that listens owns `<process>.sock` there, and holds the
// lock on `<process>.lock` for as long as it lives (NameClaim.cpp). A client connects to the socket, and where there is
// none waits for its file to appear (EndpointWatch.cpp). The file `realm` says which run directory a locator means;
// locators of another one, on another host or in another container, are not handled here (RunDirectory.cpp).

#include "transport/IpcTransport.h"

#include "transport/Authority.h"
#include "transport/EndpointWatch.h"
#include "transport/IpcStream.h"
#include "transport/NameClaim.h"
#include "transport/NameLock.h"
#include "transport/PeerProcess.h"
#include "transport/RunDirectory.h"
#include "transport/whoMayListen.h"
#include <rules/usersAndGroups.h>

#include <comm/processStart.h>
#include <kesa/processName.h>
#include <obr/GlobalErrorHandler.h>
#include <obr/explainError.h>
#include <obr/visible.h>
#include <tracing/Channel.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

namespace kesa::commadapter::transport {

namespace {

/// So that many clients at once do not keep the loop from its connections.
constexpr int ACCEPTS_PER_TURN = 64;
constexpr comm::TimeNs ACCEPT_PAUSE = 100 * comm::MILLISECOND;
/// For who removes several files.
constexpr comm::TimeNs REMOVAL_PAUSE = 100 * comm::MILLISECOND;
/// Between two attempts to put back what was removed.
constexpr comm::TimeNs RESTORE_PAUSE = comm::SECOND;
constexpr std::size_t MOST_TRIED = 1024;

/// Why a socket or directory may not be used, and what to do.
ITransport::Connected forbid(const std::string& path, const struct stat& status)
{
    const bool isDirectory = S_ISDIR(status.st_mode);
    const bool mayGroup = (status.st_mode & (isDirectory ? S_IXGRP : S_IWGRP)) != 0;
    const char* const advice =
        mayGroup && access::isSharedGroup(status.st_uid, status.st_gid) ? "add this user to the group and log in anew"
        : isDirectory ? "its owner has to let a group of this user use it"
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

const ::tracing::Channel& channel()
{
    static const ::tracing::Channel& instance = *new ::tracing::Channel("KESA_COMM_IPC");
    return instance;
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
        : m_settings(settings), m_loop(std::move(loop)), m_runDirectory(settings.runDir),
          m_self(std::make_shared<IpcTransport*>(this)),
          m_endpoints(m_loop, m_runDirectory.path(), &IpcTransport::traceUnwatched),
          m_ownFiles(
              m_loop, m_runDirectory.path(), [](const std::string& /*why*/) {}, EndpointWatch::What::eGONE)
    {}
    ~IpcTransport() override { end(); }
    IpcTransport(const IpcTransport&) = delete;
    IpcTransport& operator=(const IpcTransport&) = delete;

    std::string scheme() const override { return "ipc"; }
    std::string runDirectory() const override { return m_runDirectory.path(); }
    std::string runDirectorySource() const override { return m_runDirectory.source(); }
    bool listen(const std::string& process, Accept accept, std::string& why) override;
    std::optional<Endpoint> ownEndpoint() const override
    {
        const std::lock_guard lock(m_mutex);
        return m_own;
    }
    void watchOwnEndpoint() override;
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
        end();
    }

private:
    void onLoop(const char* function) const
    {
        obr::GlobalErrorHandler::doAssert(m_loop->isCurrent(), "m_loop->isCurrent()", __FILE__, __LINE__, function,
                                          "only on the loop of the transport");
    }
    RunDirectory::Realm judge(const Endpoint& endpoint, int& error) const;
    template <class Task>
    void postWhileOpen(Task task);
    void startAccepting();
    std::unique_ptr<IpcStream> makeStream(Descriptor socket);
    void stopAccepting();
    void acceptAll();
    void pauseAccepting(int error);
    Connected open(const Endpoint& endpoint);
    void tried(const Endpoint& endpoint, const SocketFile& file);
    Connected miss(const Endpoint& endpoint, const SocketFile& file);
    static void traceUnwatched(const std::string& why);
    void lookForOwnFiles();
    bool isOwnSocketThere() const;
    void restoreOwnFiles(bool withName);
    void changeSocket();
    void traceRestored(const std::string& realm, const std::string& why);
    void end();

    const IpcSettings m_settings;
    const std::shared_ptr<comm::Reactor> m_loop;
    mutable RunDirectory m_runDirectory;

    // Under the mutex: a name is claimed and asked for in any thread, and given up on the loop.
    mutable std::mutex m_mutex;
    std::unique_ptr<NameClaim> m_claim; ///< once there, exchanged on the loop only
    std::optional<Endpoint> m_own;
    bool m_isClosed = false;
    bool m_isUnusableTraced = false;
    /// What is posted holds it weakly, and does nothing once the transport is closed.
    std::shared_ptr<IpcTransport*> m_self;

    // The loop's own.
    EndpointWatch m_endpoints;
    EndpointWatch m_ownFiles;
    bool m_isOwnWatched = false;
    comm::Reactor::Id m_lookTimer = 0;
    comm::TimeNs m_nextRestore = 0;
    std::map<std::string, SocketFile> m_tried; ///< what the last connect to a process found
    Accept m_accept;
    int m_listening = -1;
    comm::Reactor::Id m_acceptWatch = 0;
    comm::Reactor::Id m_acceptTimer = 0;
    bool m_isLimitTraced = false;
    bool m_isUnwatchedTraced = false;
    bool m_isRemovalTraced = false;
    std::unique_ptr<NameClaim> m_former; ///< while who waits there is served
};

template <class Task>
void IpcTransport::postWhileOpen(Task task)
{
    m_loop->post([weak = std::weak_ptr(m_self), task = std::move(task)]() mutable {
        if (weak.lock()) {
            task();
        }
    });
}

bool IpcTransport::listen(const std::string& process, Accept accept, std::string& why)
{
    const std::lock_guard lock(m_mutex);
    if (m_own && m_own->process == process) {
        return false;
    }
    if (m_isClosed || m_own || !isProcessName(process)) {
        why = m_isClosed ? std::string("the transport is closed") : complaintAboutProcessName(process);
        return true;
    }
    Descriptor directory;
    std::string realm;
    if (m_runDirectory.prepare(directory, realm, why)) {
        if (!std::exchange(m_isUnusableTraced, true)) {
            KESA_TRACE_TEXT(channel(), 3,
                            fmt::format("[listen] this process can connect, but provides nothing: {}", why));
        }
        return true;
    }
    m_claim = NameClaim::take(std::move(directory), process, m_settings, why);
    if (!m_claim) {
        return true;
    }
    m_own = Endpoint{"ipc", process, realm, {}};
    postWhileOpen([this, socket = m_claim->socket(), accept = std::move(accept)]() mutable {
        m_listening = socket;
        m_accept = std::move(accept);
        startAccepting();
    });
    return false;
}

void IpcTransport::startAccepting()
{
    m_acceptWatch = m_loop->watch(m_listening, comm::Reactor::eREADABLE, [this](unsigned /*ready*/) { acceptAll(); });
    if (m_acceptWatch == 0) {
        KESA_TRACE(channel(), 4, "[listen] the loop cannot watch the listening socket: nobody can connect");
    }
}

void IpcTransport::acceptAll()
{
    for (int count = 0; count < ACCEPTS_PER_TURN && m_acceptWatch != 0; ++count) {
        auto socket =
            Descriptor::open([this] { return ::accept4(m_listening, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC); });
        if (socket) {
            m_accept(makeStream(std::move(socket)));
        } else if (errno == EAGAIN) {
            m_isLimitTraced = false;
            return;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            pauseAccepting(errno);
            return;
        }
    }
}

void IpcTransport::stopAccepting()
{
    if (m_acceptTimer != 0) {
        m_loop->cancelTimer(std::exchange(m_acceptTimer, 0));
    }
    if (m_acceptWatch != 0) {
        m_loop->unwatch(std::exchange(m_acceptWatch, 0));
    }
}

/// Its end is a reason to look for the own files.
std::unique_ptr<IpcStream> IpcTransport::makeStream(Descriptor socket)
{
    return std::make_unique<IpcStream>(m_loop, std::move(socket), [weak = std::weak_ptr(m_self)] {
        if (const auto self = weak.lock()) {
            (*self)->lookForOwnFiles();
        }
    });
}

/// The socket stays readable: without a pause the loop would spin until a descriptor is free.
void IpcTransport::pauseAccepting(int error)
{
    if (!std::exchange(m_isLimitTraced, true)) {
        KESA_TRACE(channel(), 3, "[accept] clients wait, tried again every 100 ms: %s",
                   obr::explainError(error).c_str());
    }
    if (m_acceptTimer != 0) {
        return;
    }
    m_loop->changeInterest(m_acceptWatch, comm::Reactor::eNONE);
    m_acceptTimer = m_loop->startTimer(comm::now() + ACCEPT_PAUSE, [this] {
        m_acceptTimer = 0;
        m_loop->changeInterest(m_acceptWatch, comm::Reactor::eREADABLE);
    });
}

void IpcTransport::connect(const Endpoint& endpoint, util::UniqueFunction<void(Connected)> done)
{
    onLoop(__func__);
    postWhileOpen([done = std::move(done), connected = open(endpoint)]() mutable { done(std::move(connected)); });
}

RunDirectory::Realm IpcTransport::judge(const Endpoint& endpoint, int& error) const
{
    if (endpoint.scheme != "ipc") {
        return RunDirectory::Realm::eOTHER;
    }
    { // what this process provides stays its own, whatever becomes of the directory
        const std::lock_guard lock(m_mutex);
        if (endpoint.realm.empty() || (m_own && *m_own == endpoint)) {
            return RunDirectory::Realm::eOURS;
        }
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
    auto stream = makeStream(std::move(socket));
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

/// Whoever is missed was perhaps removed together with this process, and who goes may come back. Only then it is looked
/// for: to watch it all the time would take one of the few inotify instances that all processes of a user share. Not at
/// once: who removes a directory does so file by file, and who removes again and again is not followed as fast.
void IpcTransport::lookForOwnFiles()
{
    if (m_acceptWatch == 0 || m_lookTimer != 0) {
        return;
    }
    m_lookTimer = m_loop->startTimer(std::max(comm::now() + REMOVAL_PAUSE, m_nextRestore), [this] {
        m_lookTimer = 0;
        if (m_acceptWatch == 0) {
            return;
        }
        const bool isFound = isOwnSocketThere() && m_claim->isNameThere();
        if (!isFound || m_runDirectory.lacksRealm()) {
            m_nextRestore = comm::now() + RESTORE_PAUSE;
            restoreOwnFiles(!isFound);
        }
    });
}

bool IpcTransport::isOwnSocketThere() const
{
    const std::string path = m_runDirectory.path() + '/' + socketFileName(ownEndpoint()->process);
    struct stat status {};
    // What cannot be looked at is not known to have gone.
    return ::lstat(path.c_str(), &status) == 0 ? m_claim->isSocketFile(status) : errno != ENOENT && errno != ENOTDIR;
}

/// The realm's file as well: what removes one file mostly removes all, one after the other.
void IpcTransport::watchOwnEndpoint()
{
    postWhileOpen([this] {
        const std::optional<Endpoint> own = ownEndpoint();
        if (!own || std::exchange(m_isOwnWatched, true)) {
            return;
        }
        std::string ignored; // it is looked for at other times, too
        for (const std::string& file :
             {socketFileName(own->process), nameLockFile(own->process), std::string(RunDirectory::REALM_FILE)}) {
            m_ownFiles.add(
                file, [this] { lookForOwnFiles(); }, ignored);
        }
    });
}

void IpcTransport::restoreOwnFiles(bool withName)
{
    std::string realm;
    std::string why;
    bool failed = false;
    {
        const std::lock_guard lock(m_mutex);
        realm = m_own->realm;
        Descriptor directory;
        m_runDirectory.makeAgain(m_claim->directory());
        failed = m_runDirectory.prepare(directory, realm, why);
        std::unique_ptr<NameClaim> claim;
        if (!failed && withName) {
            claim = m_claim->takeAgain(std::move(directory), m_settings, why);
            failed = !claim;
        }
        if (claim) {
            m_former = std::exchange(m_claim, std::move(claim));
        }
    }
    if (m_former) {
        changeSocket();
    }
    traceRestored(realm, failed ? why : std::string());
    if (failed) {
        lookForOwnFiles();
    }
}

/// Who waits at the old socket is served before the new one takes its place.
void IpcTransport::changeSocket()
{
    acceptAll();
    stopAccepting();
    m_former.reset();
    m_listening = m_claim->socket();
    startAccepting();
}

/// `why`: it could not be done; told once.
void IpcTransport::traceRestored(const std::string& realm, const std::string& why)
{
    const bool isTold = std::exchange(m_isRemovalTraced, !why.empty());
    if (isTold && !why.empty()) {
        return;
    }
    const std::string own = ownEndpoint()->realm;
    const std::string what =
        !why.empty() ? fmt::format("who starts now does not find it, and it cannot put them back: {}", why)
        : realm == own
            ? "it has put them back; keep cleaners out of the run directory"
            : fmt::format("it listens there again, but the directory was made anew meanwhile, with the realm "
                          "{}, and what this process has registered names the one of before, {}: restart it",
                          realm, own);
    KESA_TRACE_TEXT(channel(), 3,
                    fmt::format("[listen] somebody has removed files of this process from \"{}\": {}",
                                m_runDirectory.shownPath(), what));
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
    lookForOwnFiles();
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
        channel(), 3,
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

void IpcTransport::end()
{
    stopAccepting();
    if (m_lookTimer != 0) {
        m_loop->cancelTimer(std::exchange(m_lookTimer, 0));
    }
    m_endpoints.clear();
    m_ownFiles.clear();
    const std::lock_guard lock(m_mutex);
    m_self.reset();
    m_isClosed = true;
    m_own.reset();
    m_claim.reset();
}

} // namespace

std::unique_ptr<ITransport> makeIpcTransport(const IpcSettings& settings, std::shared_ptr<comm::Reactor> loop)
{
    return std::make_unique<IpcTransport>(settings, std::move(loop));
}

} // namespace kesa::commadapter::transport
