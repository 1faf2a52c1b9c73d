#ifndef KESA_COMMADAPTER_TRANSPORT_IPCLISTENER_H
#define KESA_COMMADAPTER_TRANSPORT_IPCLISTENER_H

#include "transport/EndpointWatch.h"
#include "transport/IpcStream.h"
#include "transport/IpcTransport.h"
#include "transport/NameClaim.h"
#include "transport/RunDirectory.h"

#include <comm/Reactor.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kesa::commadapter::transport {

/// The place of this process in the run directory: its name, the socket that others find it by, and who connects to it.
/// What somebody removes of it is put back.
class IpcListener {
public:
    IpcListener(const IpcSettings& settings, std::shared_ptr<comm::Reactor> loop, RunDirectory& runDirectory);
    ~IpcListener() { close(); }
    IpcListener(const IpcListener&) = delete;
    IpcListener& operator=(const IpcListener&) = delete;

    /// These three as in `ITransport`.
    [[nodiscard]] bool listen(const std::string& process, ITransport::Accept accept, std::string& why);
    std::optional<Endpoint> ownEndpoint() const;
    void watchOwnFiles();
    /// Any thread.
    bool isOwn(const Endpoint& endpoint) const;

    /// On either side of a connection: its end is a reason to look for the own files.
    std::unique_ptr<IpcStream> makeStream(Descriptor socket);
    /// Soon, and puts back what is not there. Loop only.
    void lookForOwnFiles();
    /// Gives the name back; nobody is accepted any more, and nothing can be claimed. Loop only, or after its end.
    void close();

private:
    template <class Task>
    void postWhileOpen(Task task);
    void startAccepting();
    void stopAccepting();
    void acceptAll();
    void pauseAccepting(int error);
    bool isOwnSocketThere() const;
    void restoreOwnFiles(bool withName);
    void changeSocket();
    void traceRestored(const std::string& realm, const std::string& why);

    const IpcSettings m_settings;
    const std::shared_ptr<comm::Reactor> m_loop;
    RunDirectory& m_runDirectory;

    // Under the mutex: a name is claimed and asked for in any thread, and given up on the loop.
    mutable std::mutex m_mutex;
    std::unique_ptr<NameClaim> m_claim; ///< once there, exchanged on the loop only
    std::optional<Endpoint> m_own;
    bool m_isClosed = false;
    bool m_isUnusableTraced = false;
    /// What is posted holds it weakly, and does nothing once the listener is closed.
    std::shared_ptr<IpcListener*> m_self;

    // The loop's own.
    EndpointWatch m_ownFiles;
    bool m_isOwnWatched = false;
    comm::Reactor::Id m_lookTimer = 0;
    comm::TimeNs m_nextRestore = 0;
    ITransport::Accept m_accept;
    int m_listening = -1;
    comm::Reactor::Id m_acceptWatch = 0;
    comm::Reactor::Id m_acceptTimer = 0;
    bool m_isLimitTraced = false;
    bool m_isRemovalTraced = false;
    std::unique_ptr<NameClaim> m_former; ///< while who waits there is served
};

} // namespace kesa::commadapter::transport

#endif
