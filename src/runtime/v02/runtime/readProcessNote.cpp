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
constexpr int MOST_OPEN = 4096; // a look at a hundred thousand takes a second; a runtime starts early
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

comm::TimeNs wallTimeOf(const Value& value)
{
    constexpr std::int64_t MOST_MILLISECONDS = INT64_MAX / comm::MILLISECOND;
    return std::clamp<std::int64_t>(noteNumber(value), 0, MOST_MILLISECONDS) * comm::MILLISECOND;
}

std::uint64_t countOf(const Value& value)
{
    return static_cast<std::uint64_t>(std::max<std::int64_t>(noteNumber(value), 0));
}

/// The last ones of a list.
template <class T, class Read>
std::vector<T> lastOf(const Value& list, const Read& read)
{
    const auto& items = list.items();
    std::vector<T> last;
    for (std::size_t i = items.size() - std::min(items.size(), ProcessNote::MOST_OF_EACH); i < items.size(); ++i) {
        last.push_back(read(items[i]));
    }
    return last;
}

std::vector<ReadProcessNote::Hold> holdsOf(const Value& list)
{
    const auto& items = list.items();
    std::vector<ReadProcessNote::Hold> holds;
    for (std::size_t i = 0; i < std::min(items.size(), MOST_HOLDS); ++i) {
        holds.push_back({textOf(items[i]["loop"]), textOf(items[i]["holder"]),
                         timeUntilNow(noteNumber(items[i]["since"])), countOf(items[i]["waiting"]),
                         lastOf<std::string>(items[i]["services"], [](const Value& each) { return textOf(each); })});
    }
    return holds;
}

ReadProcessNote noteOf(const Value& text, pid_t pid)
{
    using Note = ReadProcessNote;
    Note note;
    note.pid = pid;
    note.process = textOf(text["process"]);
    note.runDirectory = textOf(text["runDirectory"], PATH_MAX);
    note.runDirectoryId = textOf(text["runDirectoryId"]);
    note.isWatched = text["holds"].isArray();
    note.refused = lastOf<Note::Refusal>(text["refused"], [](const Value& each) {
        return Note::Refusal{textOf(each["path"]), textOf(each["reason"]), wallTimeOf(each["when"])};
    });
    note.dropped = lastOf<Note::Dropped>(text["dropped"], [](const Value& each) {
        return Note::Dropped{textOf(each["path"]), wallTimeOf(each["when"])};
    });
    note.tooSlow = lastOf<Note::TooSlow>(text["tooSlow"], [](const Value& each) {
        return Note::TooSlow{textOf(each["path"]), textOf(each["loop"]), wallTimeOf(each["when"]),
                             countOf(each["times"])};
    });
    note.holds = holdsOf(text["holds"]);
    note.ownHolds = holdsOf(text["ownHolds"]);
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
    int looked = 0;
    for (fs::directory_iterator next("/proc/" + std::to_string(pid) + "/fd", failed), end;
         !failed && next != end && seen.size() < MOST_FILES && looked++ < MOST_OPEN && comm::now() < deadline;
         next.increment(failed)) {
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
