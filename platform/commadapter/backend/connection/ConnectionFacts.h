#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_CONNECTIONFACTS_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_CONNECTIONFACTS_H

#include <comm/Clock.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace kesa::commadapter {

/// A connection as it is at the moment of a question.
struct ConnectionFacts {
    bool isByPeer = false;    ///< the peer has opened it, and asks; else this process has, and asks
    bool isConnected = false; ///< the peer has said hello
    std::string process;      ///< as the peer says, or as the locator does; empty while unknown
    std::int64_t pid = -1;    ///< -1 while unknown, like the next one
    std::int64_t uid = -1;
    comm::TimeNs since = 0;       ///< on the wall clock; 0 while there is none
    std::size_t openRequests = 0; ///< whose end has not been sent, or has not come
    std::size_t queuedBytes = 0;  ///< to the peer, still in this process
    std::size_t unreadBytes = 0;  ///< of the peer, arrived and not read
    bool isHeld = false;          ///< its requests wait, since its peer does not take its answers
    std::size_t cutStreams = 0;   ///< of the peer: it took their values too slowly
    std::string reason;           ///< why it is not connected
};

} // namespace kesa::commadapter

#endif
