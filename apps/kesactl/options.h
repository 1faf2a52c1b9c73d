#ifndef KESACTL_OPTIONS_H
#define KESACTL_OPTIONS_H

#include <CLI/App.hpp>
#include <comm/Clock.h>

#include <algorithm>
#include <string>

namespace kesactl {

/// What every command that talks to a running system understands.
class CommonOptions {
public:
    CommonOptions() = default;
    explicit CommonOptions(double seconds) : timeoutSeconds(seconds) {}

    bool isJson = false;
    double timeoutSeconds = 2;
    comm::TimeNs timeout() const { return static_cast<comm::TimeNs>(timeoutSeconds * 1e9); }
    /// Of all that the command waits for: counted from when it is first asked for.
    comm::TimeNs deadline() const
    {
        m_deadline = m_deadline == 0 ? comm::now() + timeout() : m_deadline;
        return m_deadline;
    }
    /// The same for what is asked after something else, which is given a little time in any case: who was not given
    /// any is not to be called silent.
    comm::TimeNs laterDeadline() const { return std::max(deadline(), comm::now() + 200 * comm::MILLISECOND); }

private:
    mutable comm::TimeNs m_deadline = 0; ///< 0: not yet
};

void addCommonOptions(CLI::App& command, CommonOptions& options, const std::string& timeoutText);

// For `CLI::Option::check`: what is wrong, or empty.
std::string checkInterval(const std::string& text); ///< seconds, also none
std::string checkCount(const std::string& text);
std::string checkGlob(const std::string& glob);
std::string checkPath(const std::string& path);     ///< of a service, which "/" is not
std::string checkResource(const std::string& path); ///< inside a service
std::string checkProcess(const std::string& name);

/// A glob that matches this path only.
std::string literal(const std::string& path);

/// "; kesactl why /media/player says why" of a glob that is a path; one that looks like a path, as `adviseLiteral`.
std::string adviseWhy(const std::string& glob);
/// "; if that is a path, write '/media/\[1\]'". Nothing for what cannot be one, or hardly is.
std::string adviseLiteral(const std::string& glob);

} // namespace kesactl

#endif
