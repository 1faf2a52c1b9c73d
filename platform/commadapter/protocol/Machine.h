#ifndef KESA_COMMADAPTER_PROTOCOL_MACHINE_H
#define KESA_COMMADAPTER_PROTOCOL_MACHINE_H

#include "protocol/Input.h"
#include "protocol/Output.h"

namespace kesa::commadapter::protocol {

/// The protocol on one connection, without I/O: bytes, deadlines and commands in; bytes, callbacks and the next
/// deadline out. `docs/protocol.md` gives the bytes.
///
/// Threads: the two halves may be used at the same time. `input` belongs to the loop. `output` is guarded by a lock of
/// the owner's, held around every call of it; `input` does not need that lock, and answers a ping through
/// `takePongsOwed`.
struct Machine {
    /// Queues the own hello. `listener` outlives the machine.
    Machine(Role role, const Hello& own, const Limits& limits, IMachineListener& listener, comm::TimeNs now)
        : shared(now), input(role, own, limits, listener, shared), output(role, own, limits, shared, now)
    {}

    Shared shared; ///< what the halves tell each other; theirs
    Input input;
    Output output;
};

} // namespace kesa::commadapter::protocol

#endif
