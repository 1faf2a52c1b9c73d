// A process that listens owns `<process>.sock` in the run directory, and holds the lock on `<process>.lock` for as long
// as it lives (NameClaim.cpp).

#include "transport/IpcListener.h"

#include "transport/NameLock.h"
#include "transport/ipcChannel.h"

#include <kesa/processName.h>
#include <obr/explainError.h>

#include <sys/socket.h>
#include <sys/stat.h>

#include <fmt/format.h>

#include <algorithm>
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

} // namespace

IpcListener::IpcListener(const IpcSettings& settings, std::shared_ptr<comm::Reactor> loop, RunDirectory& runDirectory)
    : m_settings(settings), m_loop(std::move(loop)), m_runDirectory(runDirectory),
      m_self(std::make_shared<IpcListener*>(this)),
      m_ownFiles(
          m_loop, m_runDirectory.path(), [](const std::string& /*why*/) {}, EndpointWatch::What::eGONE)
{}

std::optional<Endpoint> IpcListener::ownEndpoint() const
{
    const std::lock_guard lock(m_mutex);
    return m_own;
}

bool IpcListener::isOwn(const Endpoint& endpoint) const
{
    const std::lock_guard lock(m_mutex);
    return m_own && *m_own == endpoint;
}

template <class Task>
void IpcListener::postWhileOpen(Task task)
{
    m_loop->post([weak = std::weak_ptr(m_self), task = std::move(task)]() mutable {
        if (weak.lock()) {
            task();
        }
    });
}

bool IpcListener::listen(const std::string& process, ITransport::Accept accept, std::string& why)
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
            KESA_TRACE_TEXT(IPC_CHANNEL, 3,
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

void IpcListener::startAccepting()
{
    m_acceptWatch = m_loop->watch(m_listening, comm::Reactor::eREADABLE, [this](unsigned /*ready*/) { acceptAll(); });
    if (m_acceptWatch == 0) {
        KESA_TRACE(IPC_CHANNEL, 4, "[listen] the loop cannot watch the listening socket: nobody can connect");
    }
}

void IpcListener::acceptAll()
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

void IpcListener::stopAccepting()
{
    if (m_acceptTimer != 0) {
        m_loop->cancelTimer(std::exchange(m_acceptTimer, 0));
    }
    if (m_acceptWatch != 0) {
        m_loop->unwatch(std::exchange(m_acceptWatch, 0));
    }
}

/// The socket stays readable: without a pause the loop would spin until a descriptor is free.
void IpcListener::pauseAccepting(int error)
{
    if (!std::exchange(m_isLimitTraced, true)) {
        KESA_TRACE(IPC_CHANNEL, 3, "[accept] clients wait, tried again every 100 ms: %s",
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

/// Whoever is missed was perhaps removed together with this process, and who goes may come back. Only then it is looked
/// for: to watch it all the time would take one of the few inotify instances that all processes of a user share. Not at
/// once: who removes a directory does so file by file, and who removes again and again is not followed as fast.
void IpcListener::lookForOwnFiles()
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

bool IpcListener::isOwnSocketThere() const
{
    const std::string path = m_runDirectory.path() + '/' + socketFileName(ownEndpoint()->process);
    struct stat status {};
    // What cannot be looked at is not known to have gone.
    return ::lstat(path.c_str(), &status) == 0 ? m_claim->isSocketFile(status) : errno != ENOENT && errno != ENOTDIR;
}

/// The realm's file as well: what removes one file mostly removes all, one after the other.
void IpcListener::watchOwnFiles()
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

void IpcListener::restoreOwnFiles(bool withName)
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
void IpcListener::changeSocket()
{
    acceptAll();
    stopAccepting();
    m_former.reset();
    m_listening = m_claim->socket();
    startAccepting();
}

/// `why`: it could not be done; told once.
void IpcListener::traceRestored(const std::string& realm, const std::string& why)
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
    KESA_TRACE_TEXT(IPC_CHANNEL, 3,
                    fmt::format("[listen] somebody has removed files of this process from \"{}\": {}",
                                m_runDirectory.shownPath(), what));
}

std::unique_ptr<IpcStream> IpcListener::makeStream(Descriptor socket)
{
    return std::make_unique<IpcStream>(m_loop, std::move(socket), [weak = std::weak_ptr(m_self)] {
        if (const auto self = weak.lock()) {
            (*self)->lookForOwnFiles();
        }
    });
}

void IpcListener::close()
{
    stopAccepting();
    if (m_lookTimer != 0) {
        m_loop->cancelTimer(std::exchange(m_lookTimer, 0));
    }
    m_ownFiles.clear();
    const std::lock_guard lock(m_mutex);
    m_self.reset();
    m_isClosed = true;
    m_own.reset();
    m_claim.reset();
}

} // namespace kesa::commadapter::transport
