#ifndef KESA_IPEER_H
#define KESA_IPEER_H

#include <comm/Clock.h>
#include <obr/api.h>

#include <cstdint>
#include <functional>
#include <string>

namespace kesa {

/// The process at the other end of the connection that a request came over. Any thread; it may be kept, and may outlive
/// the connection and the backend. An exception out of a function given here ends the process.
class KESA_API IPeer {
public:
    virtual ~IPeer();

    /// Asks the peer for a sign of life. `answer` is called once, on the backend's I/O loop, never inside this call and
    /// with no lock held: true when the peer has answered; false when the connection has ended, the process has exited,
    /// or nothing came `within` that time, which begins anew with whatever comes, while the peer still takes what stood
    /// before the question, and when this process itself stood still. Before false the connection has been
    /// closed and its requests have been cancelled at their services. After the backend's end `answer` is dropped.
    virtual void proveAlive(comm::TimeNs within, std::function<void(bool isAlive)> answer) = 0;

    /// Asks whether the peer's process lives. `answer` is called as by `proveAlive`. Where the kernel knows the
    /// process, as over `ipc`, its word is the answer, given as soon as what the peer had sent by now has been handled:
    /// true for a process that is stopped or silent, too, which is not asked and loses nothing. False when the process
    /// or the connection has ended; before that, all that it had sent has been handled, the connection has been closed
    /// and its requests have been cancelled at their services. Where the kernel does not know it, this is
    /// `proveAlive(within, answer)`.
    virtual void isProcessAlive(comm::TimeNs within, std::function<void(bool isAlive)> answer) = 0;

    /// Calls `task` once, on the I/O loop, never inside this call and with no lock held, as soon as nothing is queued
    /// for the peer any more. Dropped when the connection ends.
    virtual void whenDrained(std::function<void()> task) = 0;

    /// Closes the connection, with `reason` in the trace; its requests are cancelled. Never inside this call.
    virtual void disconnect(const char* reason) = 0;

    /// Why the connection has ended, such as "the peer closed the connection"; empty while it lives. Asked later than
    /// when its requests are cancelled for that, perhaps only that it has.
    virtual std::string endReason() const = 0;

    /// Whether the peer has the name that it says hello with.
    struct Name {
        enum class Proof {
            ePROVEN,    ///< the kernel says that others find it by that name
            eUNPROVEN,  ///< nobody is found by it, or it cannot be known who
            eDISPROVEN, ///< `holder`, a living process, is
        };
        Proof proof = Proof::eUNPROVEN;
        std::int64_t holder = -1; ///< who is found by the name; -1: unknown
    };
    /// Looked up once for a connection, when this is first asked, and again while it cannot be known. On the loop on
    /// which the peer's requests are handled first, the backend's, at once. Any other thread waits for that loop, and
    /// so holds no lock that a handler may take.
    virtual Name proveName() { return {}; }
};

} // namespace kesa

#endif
