#ifndef KESA_COMMADAPTER_BACKEND_PROCESSDESCRIPTION_H
#define KESA_COMMADAPTER_BACKEND_PROCESSDESCRIPTION_H

#include "backend/connection/ConnectionFacts.h"

#include <comm/Clock.h>
#include <obr/UUID.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kesa::commadapter {

/// What this process is and whom it talks to, at the moment of a question.
struct ProcessDescription {
    /// So many services and connections are named at most; their counts tell of all.
    static constexpr std::size_t MOST_NAMED = 1000;
    static constexpr comm::TimeNs LONG_HOLD = comm::SECOND;

    std::string process;
    obr::UUID instance;
    comm::TimeNs started = 0; ///< the backend; on the wall clock
    std::string document;     ///< the configuration's file; empty where there is none, as the next one
    std::string runDirectory;
    std::string realm; ///< empty while this process does not listen
    std::vector<std::string> services;
    std::size_t serviceCount = 0;
    bool areServicesClosed = false; ///< to other users, since the rules of "access" cannot be read
    std::vector<ConnectionFacts> connections;
    std::size_t connectionCount = 0;
    std::size_t queuedBytes = 0; ///< on all connections
    struct Hold {
        std::string loop;
        comm::TimeNs time = 0;
        std::string holder;
    };
    std::vector<Hold> holds; ///< those of more than `LONG_HOLD`

    /// With what the kernel knows of this process: the JSON of docs/protocol.md, "What a process says of itself". Names
    /// fewer services and connections where it would be longer than about `mostBytes`.
    std::string toJson(std::size_t mostBytes) const;
};

} // namespace kesa::commadapter

#endif
