#include <runtime/v02/runtime/readProcessNote.h>

#include <obr/ErrorStorage.h>
#include <obr/visible.h>
#include <runtime/v02/runtime/ProcessNote.h>
#include <util/config/JSONParser.h>
#include <util/config/Value.h>

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <set>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace kesa::runtime::v02 {

using util::config::Value;

namespace {

constexpr std::size_t MOST_FILES = 8;
constexpr std::size_t MOST_HOLDS = 8;
constexpr std::size_t MOST_OF_TEXT = 1024;

/// As the process itself knows it, which may be in a container: the last of those under which it is known. 0: unknown.
std::int64_t ownNumberOf(pid_t pid)
{
    constexpr std::string_view KEY = "NSpid:";
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, KEY.size(), KEY) == 0) {
            return std::strtoll(line.c_str() + line.find_last_of(" \t"), nullptr, 10);
        }
    }
    return 0;
}

/// Whatever it is that has the name: neither waits for it, nor reads on. Nothing of one that is in `seen`, to which it
/// is added.
std::string readNoteFile(const std::string& link, std::set<ino_t>& seen)
{
    std::string text;
    const int file = ::open(link.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (file == -1) {
        return text;
    }
    struct stat status {};
    if (::fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 0 &&
        seen.insert(status.st_ino).second) {
        text.resize(ProcessNote::MOST_BYTES);
        text.resize(static_cast<std::size_t>(std::max<ssize_t>(::pread(file, text.data(), text.size(), 0), 0)));
    }
    ::close(file);
    return text;
}

std::int64_t noteNumber(const Value& value)
{
    std::int64_t number = 0;
    static_cast<void>(value.get(number));
    return number;
}

/// Times of a clock that others may have set at will.
comm::TimeNs timeUntilNow(std::int64_t since)
{
    const comm::TimeNs now = comm::now();
    return since < 0 || since > now ? 0 : now - since;
}

std::string textOf(const Value& value, std::size_t most = MOST_OF_TEXT)
{
    std::string text = obr::visible(value.stringView());
    if (text.size() > most) {
        while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xc0U) == 0x80) {
            --most; // inside of a character
        }
        text.resize(most);
    }
    return text;
}

ReadProcessNote noteOf(const Value& text, pid_t pid)
{
    constexpr std::int64_t MOST_MILLISECONDS = INT64_MAX / comm::MILLISECOND;
    ReadProcessNote note;
    note.pid = pid;
    note.process = textOf(text["process"]);
    note.runDirectory = textOf(text["runDirectory"], PATH_MAX);
    note.isWatched = text["holds"].isArray();
    const auto& refused = text["refused"].items();
    for (std::size_t i = refused.size() - std::min(refused.size(), ProcessNote::MOST_REFUSALS); i < refused.size();
         ++i) {
        const Value& refusal = refused[i];
        const std::int64_t when = std::clamp<std::int64_t>(noteNumber(refusal["when"]), 0, MOST_MILLISECONDS);
        note.refused.push_back({textOf(refusal["path"]), textOf(refusal["reason"]), when * comm::MILLISECOND});
    }
    const auto& holds = text["holds"].items();
    for (std::size_t i = 0; i < std::min(holds.size(), MOST_HOLDS); ++i) {
        note.holds.push_back(
            {textOf(holds[i]["loop"]), textOf(holds[i]["holder"]), timeUntilNow(noteNumber(holds[i]["since"]))});
    }
    return note;
}

} // namespace

std::optional<ReadProcessNote> readProcessNote(pid_t pid, comm::TimeNs deadline)
{
    namespace fs = std::filesystem;
    static const std::string shown = std::string("/memfd:") + ProcessNote::FILE_NAME + " (deleted)";
    std::error_code failed; // of a process that has ended, or of another user
    std::int64_t own = 0;
    std::set<ino_t> seen;
    for (fs::directory_iterator next("/proc/" + std::to_string(pid) + "/fd", failed), end;
         !failed && next != end && seen.size() < MOST_FILES && comm::now() < deadline; next.increment(failed)) {
        std::error_code gone;
        const std::string link = next->path().string();
        if (fs::read_symlink(link, gone).native() != shown) {
            continue;
        }
        Value text;
        if (util::config::JSONParser().parseString(readNoteFile(link, seen), text)) {
            obr::ErrorStorage::ack(); // it is just being written
            continue;
        }
        own = own == 0 ? ownNumberOf(pid) : own;
        if (noteNumber(text["pid"]) == (own == 0 ? pid : own) && text["process"].isString()) {
            return noteOf(text, pid);
        }
    }
    return std::nullopt;
}

} // namespace kesa::runtime::v02
