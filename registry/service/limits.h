#ifndef KESA_REGISTRY_SERVICE_LIMITS_H
#define KESA_REGISTRY_SERVICE_LIMITS_H

#include <comm/Clock.h>

#include <cstddef>

/// What one peer may make the registry keep and do, and how much is written at once. docs/protocol_registry.md lists
/// them for users; `RegistryLimits` has those that can be set.
namespace kesa::registry {

// Per process. A connection carries 65,536 requests at most, so of one that has a single one, registrations are never
// refused before it is.
inline constexpr std::size_t MAX_REGISTRATIONS = 65536;
inline constexpr std::size_t MAX_TRACKINGS = 65536;
inline constexpr std::size_t MAX_QUERIES = 16384;

// How many steps of matching (see `PatternTrie`) the different globs and filters that are asked for may add to one
// change: those of a user, and of all together, of which half is kept for root and the registry's own user. A step
// takes up to 4 ns on the machine that was measured, so those of a user hold everybody else up for a millisecond at
// most.
inline constexpr std::size_t MAX_USER_STEPS = 250'000;
/// Of a glob for the longest path: what one look takes when a first answer is gathered.
inline constexpr std::size_t MAX_GLOB_STEPS = 200'000;
inline constexpr std::size_t MAX_STEPS = 4'000'000;
/// And all that is asked for to a reload of the policy, which holds each record that somebody sees otherwise against
/// it: by that bound, which nearly all globs stay far below.
inline constexpr std::size_t MAX_RELOAD_STEPS = 500'000'000;

/// What a request takes besides what it names, as measured: the stream, its handlers, and entries of tables.
inline constexpr std::size_t REQUEST_BYTES = 1400;

inline constexpr std::size_t MAX_RECORD_BYTES = 32U << 10U;
inline constexpr std::size_t MAX_QUERY_BYTES = 32U << 10U;

/// A list stays below this: it has room for one record at least, and travels as one message that is not taken apart.
inline constexpr std::size_t LIST_BYTES = 48U << 10U;
/// What a list takes besides its updates.
inline constexpr std::size_t LIST_FRAME_BYTES = 64;

/// How much is written to a connection before its queue has to be empty once. What comes meanwhile waits here, as
/// references to records.
inline constexpr std::size_t WINDOW_BYTES = 128U << 10U;
/// With that many news waiting, a peer has to show that it lives; with that many more it is cut off.
inline constexpr std::size_t MAX_WAITING = 1U << 14U;
inline constexpr std::size_t MAX_WAITING_OF_THE_LIVING = 1U << 20U;
/// So also when they take so much with their records, which nobody else may have any more; and the slowest one of a
/// user that is not trusted when all of his processes' do.
inline constexpr std::size_t MAX_WAITING_BYTES = 64U << 20U;
inline constexpr std::size_t MAX_USER_WAITING_BYTES = 16U << 20U;
/// What one takes besides its record.
inline constexpr std::size_t NEWS_BYTES = 64;
inline constexpr comm::TimeNs WAITING_PROOF_TIME = 5 * comm::SECOND;

/// Of an explanation: so many requests of a process that ask for the path.
inline constexpr std::size_t MAX_EXPLAINED_ASKS = 16;

/// And so many names are looked at for the path that was meant by one that is not there.
inline constexpr std::size_t MAX_NEAREST_LOOKS = 2000;

/// How long a holder has to show that it lives, where the kernel does not know.
inline constexpr comm::TimeNs PROOF_TIME = comm::SECOND;

} // namespace kesa::registry

#endif
