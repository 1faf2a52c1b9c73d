// A draft has its name for less than a millisecond. Its owner may be of another container, in which its number is
// another's or nobody's here, so the age decides as well.

#include "transport/drafts.h"

#include <obr/Random.h>

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
constexpr std::size_t RANDOM_DIGITS = 16;
constexpr time_t LONGEST_DRAFT_S = 60;
constexpr int MOST_SWEPT = 4096;

/// Many encoded bytes are cut, for the length of socket addresses.
std::string draftName(std::string_view what)
{
    return fmt::format(".{:.40}.{}.{:0{}x}{}", what, ::getpid(), obr::Random::current().next(), RANDOM_DIGITS,
                       DRAFT_ENDING);
}

/// The number of who made it; 0: it is no draft. Those of before had fewer digits, or no name: `.PID.3.tmp`.
pid_t makerOf(std::string_view file)
{
    if (!file.starts_with('.') || !file.ends_with(DRAFT_ENDING)) {
        return 0;
    }
    file.remove_suffix(DRAFT_ENDING.size());
    const std::size_t beforeRandom = file.rfind('.');
    const std::size_t beforeMaker = beforeRandom == 0 ? std::string_view::npos : file.rfind('.', beforeRandom - 1);
    if (beforeRandom == std::string_view::npos || beforeMaker == std::string_view::npos) {
        return 0;
    }
    const std::string_view random = file.substr(beforeRandom + 1);
    if (random.empty() || random.size() > RANDOM_DIGITS ||
        random.find_first_not_of("0123456789abcdef") != std::string_view::npos) {
        return 0;
    }
    const std::string_view digits = file.substr(beforeMaker + 1, beforeRandom - beforeMaker - 1);
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

std::string makeDraft(std::string_view what, const std::function<bool(const std::string& name)>& make)
{
    constexpr int ATTEMPTS = 8;
    std::string name;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        name = draftName(what);
        if (!make(name)) {
            return name;
        }
        if (errno != EEXIST && errno != EADDRINUSE) {
            break;
        }
    }
    return {};
}

Descriptor makeDraftFile(int directory, std::string_view what, mode_t mode, std::string& name)
{
    Descriptor file;
    name = makeDraft(what, [&](const std::string& draft) {
        file =
            openFile([&] { return ::openat(directory, draft.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode); });
        return !file;
    });
    return file;
}

void sweepDrafts(int directory, const struct stat& present)
{
    std::error_code failed; // what cannot be listed is left as it is
    std::filesystem::directory_iterator entries(fmt::format("/proc/self/fd/{}", directory), failed);
    const std::filesystem::directory_iterator end;
    for (int seen = 0; !failed && entries != end && seen < MOST_SWEPT; entries.increment(failed), ++seen) {
        const std::string file = entries->path().filename().string();
        if (isLeftBehind(directory, file, present)) {
            ::unlinkat(directory, file.c_str(), 0);
        }
    }
}

} // namespace kesa::commadapter::transport
