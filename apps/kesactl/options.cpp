#include "options.h"

#include <CLI/CLI.hpp>
#include <kesa/Path.h>
#include <kesa/PathPatterns.h>
#include <obr/ErrorStorage.h>

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <string_view>

namespace kesactl {

namespace {

std::string checkNumber(const std::string& text)
{
    const double seconds = std::strtod(text.c_str(), nullptr);
    return std::isnan(seconds) ? "'" + text + "' is no number of seconds"
           : seconds == 0      ? "0 seconds are over before anything can answer; write some, such as 0.5"
                               : "";
}

/// What was meant, as far as it can be told: ". Write '/media/player'".
std::string adviseOn(const std::string& path)
{
    std::string meant;
    std::istringstream parts(path);
    for (std::string part; std::getline(parts, part, '/');) {
        meant += part.empty() || part == "." ? "" : "/" + part;
    }
    return kesa::Path::isCanonical(meant) ? "; write '" + meant + "'" : "";
}

} // namespace

void addCommonOptions(CLI::App& command, CommonOptions& options, const std::string& timeoutText)
{
    command.add_flag("--json", options.isJson, "One JSON value per line.");
    command.add_option("--timeout", options.timeoutSeconds, timeoutText)
        ->check(CLI::Range(0.0, 1e9))
        ->check(checkNumber) // which a range lets pass
        ->type_name("SECONDS")
        ->capture_default_str();
}

std::string checkGlob(const std::string& glob)
{
    if (glob == "/") {
        return checkPath(glob); // it matches that path only, which no service has
    }
    if (glob.empty() || std::string_view("/*?[{").find(glob.front()) == std::string_view::npos) {
        return "'" + glob + "' matches no path, since each begins with '/'; write '/" + glob + "'";
    }
    if (glob.find("//") != std::string::npos) {
        return "'" + glob + "' has '//', which no path has; write one '/'";
    }
    if (kesa::PathPatterns::createFromGlob(glob)) {
        return {};
    }
    std::string reason = obr::ErrorStorage::reason();
    obr::ErrorStorage::ack();
    return reason;
}

std::string checkPath(const std::string& path)
{
    return kesa::Path::isCanonical(path)
               ? ""
               : "'" + path + "' is no path; it begins with '/', has no '//', '.' or '..' and no '/' at its end" +
                     adviseOn(path);
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
    return checkPath(glob).empty() && literal(glob) == glob ? "; kesactl why " + glob + " says why" : "";
}

} // namespace kesactl
