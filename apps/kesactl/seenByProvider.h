#ifndef KESACTL_SEENBYPROVIDER_H
#define KESACTL_SEENBYPROVIDER_H

#include <comm/Clock.h>
#include <util/config/Value.h>

#include <cstdint>
#include <string>

namespace kesactl {

/// What a process says of the connections that another one has made to it.
struct SeenByProvider {
    bool isKnown = false; ///< else it has not answered, or not named all
    bool isConnected = false;
    bool isAsked = false;         ///< a request is open, or how many are was not counted
    bool isHeld = false;          ///< it serves no request of the other, which does not take its answers
    std::int64_t queuedBytes = 0; ///< what waits in it for the other
    std::int64_t cutStreams = 0;  ///< ended as "too slow" since it has connected, perhaps long ago

    bool isTooSlow() const noexcept; ///< at the moment
    /// "it takes what media sends more slowly than that comes; 300000 bytes wait for it", of one that is.
    std::string slownessText(const std::string& provider) const;
};

/// What to do with one that is too slow.
inline constexpr const char* AFTER_SLOWNESS =
    "a handler of it takes too long: give the handler a loop of its own with kesa::on, or let the service send less; "
    "its log names one that holds its I/O loop ([loop])";

/// By what the provider has answered; undefined: nothing.
SeenByProvider seenIn(const util::config::Value& answer, const std::string& name, std::int64_t pid);

/// Asks `provider`, by its name as in locators, about the process that has `pid` or, where the kernel does not tell,
/// `name`. Blocks until the deadline at the latest.
SeenByProvider askProviderAbout(const std::string& provider, const std::string& name, std::int64_t pid,
                                comm::TimeNs deadline);

} // namespace kesactl

#endif
