#ifndef KESA_COMMADAPTER_TRANSPORT_IPCSTREAM_H
#define KESA_COMMADAPTER_TRANSPORT_IPCSTREAM_H

#include "transport/Descriptor.h"
#include "transport/ITransport.h"

#include <comm/Reactor.h>

#include <memory>
#include <mutex>
#include <string>

namespace kesa::commadapter::transport {

/// A connected Unix socket.
class IpcStream final : public IStream {
public:
    /// `closed` is called by the first `close`, and calls nobody of the stream's owners.
    IpcStream(std::shared_ptr<comm::Reactor> loop, Descriptor socket, util::UniqueFunction<void()> closed = {});
    ~IpcStream() override;
    IpcStream(const IpcStream&) = delete;
    IpcStream& operator=(const IpcStream&) = delete;

    void start(IStreamListener& listener) override;
    Result read(std::span<unsigned char> into, std::size_t& size) override;
    Result write(std::span<const iovec> from, std::size_t& size) override;
    void setReading(bool isOn) override;
    void wantWrite() override;
    void close() override;
    Process process() const override;
    std::size_t unread() const override;
    const PeerIdentity& peer() const noexcept override { return m_peer; }
    const std::string& reason() const noexcept override { return m_reason; }

private:
    void onReady(unsigned readiness);
    void updateInterest();
    void watchPeer();
    void onPeerEnded();
    Result end(const char* reason);
    Result fail(int error);

    const std::shared_ptr<comm::Reactor> m_loop;
    Descriptor m_socket;
    util::UniqueFunction<void()> m_closed;
    IStreamListener* m_listener = nullptr;
    comm::Reactor::Id m_watch = 0;
    PeerIdentity m_peer;
    bool m_isUnwatchable = false; ///< the loop cannot watch the socket
    bool m_isReading = true;
    bool m_wantsWrite = false;

    Descriptor m_pidfd;
    comm::Reactor::Id m_pidfdWatch = 0;
    comm::Reactor::Id m_timer = 0; ///< for what has to be told in the next turn
    bool m_hasPeerEnded = false;
    std::size_t m_owed = 0; ///< bytes of a peer that has ended, to be read before that is told

    // Set once, by whoever meets the end first; that one and all later ones may read it.
    std::mutex m_reasonMutex;
    std::string m_reason;
};

} // namespace kesa::commadapter::transport

#endif
