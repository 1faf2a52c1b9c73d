#include <runtime/v02/runtime/readProcessNote.h>

#include <obr/ErrorStorage.h>
#include <runtime/v02/runtime/ProcessNote.h>
#include <util/config/JSONParser.h>
#include <util/config/Value.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace kesa::runtime::v02 {

using util::config::Value;

namespace {

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

/// Whatever it is that has the name: neither waits for it, nor reads on.
std::string readNoteFile(const std::string& link)
{
    std::string text;
    const int file = ::open(link.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (file == -1) {
        return text;
    }
    struct stat status {};
    if (::fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 0) {
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

ReadProcessNote noteOf(const Value& text, pid_t pid)
{
    constexpr std::int64_t MOST_MILLISECONDS = INT64_MAX / comm::MILLISECOND;
    ReadProcessNote note;
    note.pid = pid;
    note.process = text["process"].stringView();
    note.runDirectory = text["runDirectory"].stringView();
    note.isWatched = text["holds"].isArray();
    for (const Value& refusal : text["refused"].items()) {
        const std::int64_t when = std::clamp<std::int64_t>(noteNumber(refusal["when"]), 0, MOST_MILLISECONDS);
        note.refused.push_back({refusal["path"].toText(), refusal["reason"].toText(), when * comm::MILLISECOND});
    }
    for (const Value& hold : text["holds"].items()) {
        note.holds.push_back({hold["loop"].toText(), hold["holder"].toText(), timeUntilNow(noteNumber(hold["since"]))});
    }
    return note;
}

} // namespace

std::optional<ReadProcessNote> readProcessNote(pid_t pid)
{
    namespace fs = std::filesystem;
    static const std::string shown = std::string("/memfd:") + ProcessNote::FILE_NAME + " (deleted)";
    std::error_code failed; // of a process that has ended, or of another user
    std::int64_t own = 0;
    for (fs::directory_iterator next("/proc/" + std::to_string(pid) + "/fd", failed), end; !failed && next != end;
         next.increment(failed)) {
        std::error_code gone;
        const std::string link = next->path().string();
        if (fs::read_symlink(link, gone).native() != shown) {
            continue;
        }
        Value text;
        if (util::config::JSONParser().parseString(readNoteFile(link), text)) {
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
