#ifndef KESA_REGISTRYD_HOSTCHECK_H
#define KESA_REGISTRYD_HOSTCHECK_H

#include <kesa/url.h>

#include <string>
#include <vector>

namespace registryd {

/// How this program ends.
enum class ExitCode {
    eENDED = 0,         ///< on SIGTERM or SIGINT
    eFAILED = 1,        ///< the run directory, or what else the system refuses
    eCONFIGURATION = 2, ///< wrong arguments, or a document that does not make this process the registry's host
    eNAME_HELD = 3,     ///< another process has the name, or it is kept for another user
};

/// Whether a process of this name could host the registry now.
struct HostCheck {
    ExitCode exitCode = ExitCode::eENDED; ///< `eENDED`: it could
    std::string problem;                  ///< if not
    std::vector<kesa::url> locators;      ///< its own ones among the registry's
};

/// For people.
std::string listOf(const std::vector<kesa::url>& locators);

HostCheck checkHost(const std::string& process, const std::string& fallbackDocument);

} // namespace registryd

#endif
