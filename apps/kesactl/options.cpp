#include "options.h"

#include <CLI/CLI.hpp>
#include <kesa/Path.h>
#include <kesa/PathPatterns.h>
#include <kesa/processName.h>
#include <obr/ErrorStorage.h>
#include <util/shellWord.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string_view>

namespace kesactl {

namespace {

/// As long as a clock can count.
constexpr double LONGEST = 1e9;

/// True when it is no number of seconds that can be waited.
bool readSeconds(const std::string& text, double& seconds)
{
    char* end = nullptr;
    seconds = std::strtod(text.c_str(), &end);
    return text.empty() || *end != '\0' || !(seconds >= 0 && seconds <= LONGEST);
}

std::string complainOfSeconds(const std::string& text)
{
    return fmt::format("'{}' is no number of seconds from 0 to {:.0f}; write one such as 0.5", text, LONGEST);
}

std::string checkTimeout(const std::string& text)
{
    double seconds = 0;
    return readSeconds(text, seconds) ? complainOfSeconds(text)
           : seconds == 0             ? "0 seconds are over before anything can answer; write some, such as 0.5"
                                      : "";
}

/// What was meant, as far as it can be told: "; write /media/player".
std::string adviseOn(const std::string& path)
{
    std::string meant;
    std::istringstream parts(path);
    for (std::string part; std::getline(parts, part, '/');) {
        meant += part.empty() || part == "." ? "" : "/" + part;
    }
    return kesa::Path::isCanonical(meant) ? "; write " + util::shellWord(meant) : "";
}

} // namespace

void addCommonOptions(CLI::App& command, CommonOptions& options, const std::string& timeoutText)
{
    command.add_flag("--json", options.isJson, "One JSON value per line.");
    command.add_option("--timeout", options.timeoutSeconds, timeoutText)
        ->check(checkTimeout)
        ->type_name("SECONDS")
        ->capture_default_str();
}

std::string checkInterval(const std::string& text)
{
    double seconds = 0;
    return readSeconds(text, seconds) ? complainOfSeconds(text) : "";
}

std::string checkCount(const std::string& text)
{
    return text == "0" ? "0 of them are none; without --count it goes on to the end" : "";
}

std::string checkProcess(const std::string& name)
{
    return kesa::isProcessName(name) ? ""
           : name.empty()            ? "the name is empty"
           : name.size() > kesa::LONGEST_PROCESS_NAME
               ? fmt::format("a name has at most {} bytes, and this one {}", kesa::LONGEST_PROCESS_NAME, name.size())
               : "a name is UTF-8, and this one is not";
}

std::string checkGlob(const std::string& glob)
{
    if (glob == "/") {
        return checkPath(glob); // it matches that path only, which no service has
    }
    if (glob.empty()) {
        return "the glob is empty; without one all services match";
    }
    if (glob.find("//") != std::string::npos) {
        return "'" + glob + "' has '//', which no path has; write one '/'";
    }
    if (kesa::PathPatterns::createFromGlob(glob)) {
        return {};
    }
    std::string reason = obr::ErrorStorage::reason();
    obr::ErrorStorage::ack();
    return reason + adviseLiteral(glob);
}

std::string checkPath(const std::string& path)
{
    if (kesa::Path::isCanonical(path)) {
        return {};
    }
    const auto control = std::find_if(path.begin(), path.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; });
    if (control != path.end()) {
        return fmt::format("'{}' has the control character \\x{:02x}, which no path has", path,
                           static_cast<unsigned char>(*control));
    }
    return kesa::Path::complaintAbout(path) + adviseOn(path);
}

std::string checkResource(const std::string& path)
{
    return path == "/" ? "" : checkPath(path);
}

std::string literal(const std::string& path)
{
    std::string glob;
    for (const char c : path) {
        if (std::string_view(R"(*?[]{},\)").find(c) != std::string_view::npos) {
            glob += '\\';
        }
        glob += c;
    }
    return glob;
}

std::string adviseWhy(const std::string& glob)
{
    return !checkPath(glob).empty() ? ""
           : literal(glob) == glob  ? "; kesactl why " + util::shellWord(glob) + " says why"
                                    : adviseLiteral(glob);
}

std::string adviseLiteral(const std::string& glob)
{
    return checkPath(glob).empty() && glob.find_first_of("[]{}\\") != std::string::npos
               ? "; if that is a path, write " + util::shellWord(literal(glob))
               : "";
}

} // namespace kesactl
