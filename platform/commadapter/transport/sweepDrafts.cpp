// A draft has its name for less than a millisecond. Its owner may be of another container, in which its number is
// another's or nobody's here, so the age decides as well.

#include "transport/sweepDrafts.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <charconv>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

namespace kesa::commadapter::transport {

namespace {

constexpr std::string_view DRAFT_ENDING = ".tmp";
constexpr time_t LONGEST_DRAFT_S = 60;

/// The number of who made it; 0: it is no draft.
pid_t makerOf(std::string_view file)
{
    if (!file.starts_with('.') || !file.ends_with(DRAFT_ENDING)) {
        return 0;
    }
    file.remove_suffix(DRAFT_ENDING.size());
    file = file.substr(0, file.rfind('.')); // without the number that tells it from others of its process
    const std::size_t dot = file.rfind('.');
    if (dot == 0 || dot == std::string_view::npos) {
        return 0;
    }
    const std::string_view digits = file.substr(dot + 1);
    pid_t maker = 0;
    const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), maker);
    return parsed.ec == std::errc() && parsed.ptr == digits.data() + digits.size() && maker > 0 ? maker : 0;
}

bool isLeftBehind(int directory, const std::string& file, const struct stat& present)
{
    const pid_t maker = makerOf(file);
    struct stat status {};
    return maker != 0 && ::kill(maker, 0) != 0 && errno == ESRCH &&
           ::fstatat(directory, file.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           (S_ISSOCK(status.st_mode) || S_ISREG(status.st_mode)) &&
           status.st_mtim.tv_sec + LONGEST_DRAFT_S < present.st_mtim.tv_sec;
}

} // namespace

void sweepDrafts(int directory, const struct stat& present)
{
    std::error_code failed; // what cannot be listed is left as it is
    std::filesystem::directory_iterator entries(fmt::format("/proc/self/fd/{}", directory), failed);
    for (; !failed && entries != std::filesystem::directory_iterator(); entries.increment(failed)) {
        const std::string file = entries->path().filename().string();
        if (isLeftBehind(directory, file, present)) {
            ::unlinkat(directory, file.c_str(), 0);
        }
    }
}

} // namespace kesa::commadapter::transport
