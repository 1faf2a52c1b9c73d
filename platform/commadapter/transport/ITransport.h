#ifndef KESA_COMMADAPTER_TRANSPORT_ITRANSPORT_H
#define KESA_COMMADAPTER_TRANSPORT_ITRANSPORT_H

#include <comm/Reactor.h>
#include <kesa/url.h>
#include <util/UniqueFunction.h>

#include <sys/types.h>
#include <sys/uio.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace kesa::commadapter::transport {

/// The part of a locator that names a process: `scheme://process+realm/...`.
struct Endpoint {
    std::string scheme;
    std::string process; ///< decoded
    std::string realm;   ///< empty: this one
    std::string address; ///< host:port, where the scheme has one

    KESA_API std::string toString() const;
    friend bool operator==(const Endpoint& a, const Endpoint& b) noexcept
    {
        return a.scheme == b.scheme && a.process == b.process && a.realm == b.realm && a.address == b.address;
    }
};

/// What the kernel, or the network, vouches for.
struct PeerIdentity {
    std::int64_t pid = -1;
    std::int64_t uid = -1;
    std::int64_t gid = -1;
    std::string subject;
    /// When the process with that number began, in the kernel's ticks; 0 when unknown. Both together are one process,
    /// also when the number is given to another one later.
    std::uint64_t start = 0;
};

/// Hears of one stream, on the loop.
class IStreamListener {
public:
    virtual ~IStreamListener() = default;
    /// Bytes, or the end, can be read. Comes again as long as there is something.
    virtual void onReadable() = 0;
    /// After `wantWrite`: there is room again, or the stream has ended, as the next write will tell.
    virtual void onWritable() = 0;
    /// The peer's process has ended, although its end of the stream may be held open by a child of it. What it wrote
    /// has been read before, unless reading is off. Not called where the end of the stream was read first and the
    /// stream closed.
    virtual void onPeerExited() = 0;
};

/// A connected stream of bytes that never blocks. Threads: everything on the loop, except `write`. A listener may close
/// and destroy its stream from inside a call.
class IStream {
public:
    virtual ~IStream() = default;
    /// Begins to report; `listener` stays until `close` has returned.
    virtual void start(IStreamListener& listener) = 0;

    enum class Result {
        eDONE,        ///< `size` bytes were moved
        eWOULD_BLOCK, ///< none at the moment
        eENDED,       ///< the peer closed, or the stream broke: see `reason`
    };
    virtual Result read(std::span<unsigned char> into, std::size_t& size) = 0;
    /// Off: no `onReadable` comes, and what the peer writes fills its own side. The end is then found by writing, so an
    /// owner that turns it off waits for `onWritable`. On at first. `read` works all the same.
    virtual void setReading(bool isOn) = 0;
    /// Any thread, under the owner's output lock.
    virtual Result write(std::span<const iovec> from, std::size_t& size) = 0;
    /// Asks for one `onWritable`.
    virtual void wantWrite() = 0;
    /// Ends the stream and frees the descriptor. With the owner's output lock held, so that nobody writes meanwhile.
    virtual void close() = 0;

    enum class Process { eLIVES, eENDED, eUNKNOWN };
    /// What the kernel says of the process at the other end, be it stopped or not; of one that has ended, some bytes
    /// may be left to read. Unknown where nobody can say. Loop only.
    virtual Process process() const = 0;
    /// Bytes that the peer has written and nobody has read yet. Loop only.
    virtual std::size_t unread() const = 0;
    /// Of the process that connected, or that listens, whoever writes. `start` is known once the stream reports.
    virtual const PeerIdentity& peer() const noexcept = 0;
    virtual const std::string& reason() const noexcept = 0;
};

/// How processes reach each other under one scheme. One object per backend.
class ITransport {
public:
    virtual ~ITransport() = default;
    virtual std::string scheme() const = 0;
    /// Where the processes of this realm find each other; empty when that is no directory.
    virtual std::string runDirectory() const = 0;
    /// What names that, as in `RunDirectoryChoice`; empty when there is none.
    virtual std::string runDirectorySource() const { return {}; }

    using Accept = util::UniqueFunction<void(std::unique_ptr<IStream>)>;
    /// Claims the name of a process and listens under it; `accept` is called on the loop, for each client. True on
    /// failure: a living process has the name, or a right is missing; `why` says so. From any thread but the loop's.
    /// Claimed already by this object: success at once.
    [[nodiscard]] virtual bool listen(const std::string& process, Accept accept, std::string& why) = 0;
    /// From now on what others find this process by is put back soon when somebody removes it; else that is noticed
    /// when a connection ends or cannot be made. For one whom all rely on: it costs resources that are few. After
    /// `listen`, from any thread.
    virtual void watchOwnEndpoint() {}
    /// The own endpoint with its realm, as locators name it; absent while not listening.
    virtual std::optional<Endpoint> ownEndpoint() const = 0;

    /// The process at the other end is stopped, by a signal or a debugger, as far as that can be known. Any thread.
    virtual bool isStopped(const PeerIdentity& /*peer*/) const { return false; }

    /// Who has the endpoint's name and cannot be found under it, since what others find him by was removed, and what to
    /// do; empty when it is not so, or cannot be known. Any thread.
    virtual std::string whoCannotBeFound(const Endpoint& /*endpoint*/) const { return {}; }

    /// Who listens under the name in this realm and may, so that a client would connect to him: as the kernel says,
    /// with `pid`, `uid` and `start`; the pid 0 when that is nobody, below when it cannot be known at the moment. Loop
    /// only.
    virtual PeerIdentity whoListens(const std::string& /*process*/) const { return {}; }

    /// Reads the authority of a locator of this scheme; absent when it is malformed.
    virtual std::optional<Endpoint> parse(const url& locator) const = 0;
    /// Whether it is of this realm, or may be, where that cannot be read at the moment: then `connect` says what is
    /// missing. Never by who can be reached.
    virtual bool canHandle(const Endpoint& endpoint) const = 0;

    enum class Failure {
        eMISSING,   ///< nobody is there: worth watching for
        eSILENT,    ///< a socket that nobody listens on, or not yet: worth watching for, and asking again
        eBUSY,      ///< try again in a few milliseconds
        eFORBIDDEN, ///< this process lacks a right
        eOTHER,
    };
    struct Connected {
        std::unique_ptr<IStream> stream; ///< null on failure
        Failure failure = Failure::eOTHER;
        std::string reason;
    };
    /// Connects; `done` is called on the loop, never inside the call. Loop only.
    virtual void connect(const Endpoint& endpoint, util::UniqueFunction<void(Connected)> done) = 0;

    /// Calls `appeared`, on the loop and never inside the call, each time the endpoint may have begun to listen, also
    /// when that was between the last `connect` and this call; what that one reached does not count. 0 where that
    /// cannot be watched: then the caller polls. Loop only.
    virtual comm::Reactor::Id watchEndpoint(const Endpoint& endpoint, util::UniqueFunction<void()> appeared) = 0;
    virtual void unwatchEndpoint(comm::Reactor::Id id) = 0;

    /// The longest pause between two attempts to connect.
    virtual comm::TimeNs longestPause() const noexcept = 0;
    /// Stops listening and gives the name back; no `accept`, `done` or `appeared` is called any more. Loop only;
    /// streams are closed by their owners before.
    virtual void close() = 0;
};

} // namespace kesa::commadapter::transport

#endif
