#ifndef KESA_COMMADAPTER_TRANSPORT_MEMORYNETWORK_H
#define KESA_COMMADAPTER_TRANSPORT_MEMORYNETWORK_H

#include "transport/ITransport.h"

#include <comm/Reactor.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kesa::commadapter::transport {

/// A network inside one process: names, listeners and streams without descriptors, for tests and simulations. Bytes
/// travel through the receiving side's loop. Its faults are drawn from a function the test gives. Any thread.
class MemoryNetwork {
public:
    MemoryNetwork();
    ~MemoryNetwork();

    /// The transport of one simulated process, scheme "ipc", realm as given. `group` is the process in `kill` and the
    /// faults below; `loop` is its backend's.
    std::unique_ptr<ITransport> makeTransport(std::shared_ptr<comm::Reactor> loop, std::uint64_t group);

    /// Every fault off by default, and without `draw`. `draw(bound)` is uniform in [0, bound); it is called under the
    /// network's lock, on whatever thread writes, reads or connects.
    struct Faults {
        std::function<std::uint64_t(std::uint64_t bound)> draw;
        unsigned shortWritePercent = 0;      ///< a write moves fewer bytes than it could
        unsigned shortReadPercent = 0;       ///< a read hands over fewer bytes than there are: cuts inside frames
        unsigned refusePercent = 0;          ///< a connect is told "busy"
        unsigned heldOpenPercent = 0;        ///< a killed process leaves a child that keeps its end of a stream
        comm::TimeNs longestDelay = 0;       ///< of a chunk of bytes on its way; never changes their order
        std::size_t pipeBytes = 256U << 10U; ///< what a stream holds before its writer would block
        bool isEndReadFirst = false;         ///< who reads and writes hears of the end as a reader
    };
    void setFaults(Faults faults);
    /// Of any faults so far.
    comm::TimeNs longestDelay() const;

    /// The process is gone: its listener and streams end, its name is free; its own side hears nothing any more.
    /// What it wrote is still read, then come the end and `onPeerExited`. Transports made for the group later are of a
    /// new process.
    void kill(std::uint64_t group);
    /// Cuts the streams between two groups; both sides lose a drawn part of what they have not read and see the end.
    void cut(std::uint64_t a, std::uint64_t b);
    /// The hellos of `liar` say from now on that it is `other`, by the instance that this one's last hello had.
    void repeatInstance(std::uint64_t liar, std::uint64_t other);
    /// Of the streams that it opens from now on, or that are opened to it; root's without.
    void setUser(std::uint64_t group, std::int64_t uid);
    /// There is a stream that `client` opened to `server`, and none whose end one of them has still to see.
    bool isConnected(std::uint64_t client, std::uint64_t server) const;
    /// Ends of streams that their owners have not closed.
    std::size_t openStreams() const;

    const std::string& realm() const noexcept;

private:
    class Impl;
    std::shared_ptr<Impl> m_impl;
};

} // namespace kesa::commadapter::transport

#endif
