#include <runtime/v02/runtime/ProcessNote.h>

#include <comm/AtFork.h>
#include <comm/Clock.h>
#include <comm/wallClock.h>
#include <kesa/reasonOf.h>
#include <obr/visible.h>
#include <runtime/v02/runtime/channels.h>
#include <util/config/Complaint.h>
#include <util/config/Dictionary.h>
#include <util/config/Value.h>

#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace kesa::runtime::v02 {

using util::config::Dictionary;
using util::config::Value;

namespace {

constexpr std::size_t MOST_OF_REASON = 1024;

/// Valid UTF-8, as JSON has to be.
std::string noted(std::string_view text)
{
    return obr::visible(util::config::excerpt(text));
}

/// Kernels from 6.3 on want to know whether the file may be executed; earlier ones refuse to be told.
int makeMemoryFile()
{
    constexpr unsigned NOT_EXECUTABLE = 0x8;
    const int made = ::memfd_create(ProcessNote::FILE_NAME, MFD_CLOEXEC | NOT_EXECUTABLE);
    return made == -1 && errno == EINVAL ? ::memfd_create(ProcessNote::FILE_NAME, MFD_CLOEXEC) : made;
}

/// 0 when there is none.
std::uint64_t inodeOf(int descriptor)
{
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 ? status.st_ino : 0;
}

} // namespace

ProcessNote::ProcessNote(const std::string& process, const std::string& runDirectory)
    : m_process(obr::visible(process)), m_runDirectory(obr::visible(runDirectory))
{
    publish();
}

ProcessNote::~ProcessNote()
{
    end();
}

void ProcessNote::addRefusal(const std::string& path, const Response& error)
{
    std::string reason = reasonOf(error);
    reason.resize(std::min(reason.size(), MOST_OF_REASON));
    Refusal refusal{noted(path), obr::visible(reason), comm::wallClock() / comm::MILLISECOND};
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::erase_if(m_refused, [&refusal](const Refusal& each) { return each.path == refusal.path; });
    m_refused.push_back(std::move(refusal));
    if (m_refused.size() > MOST_REFUSALS) {
        m_refused.pop_front();
    }
    publish();
}

void ProcessNote::removeRefusal(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_refused.empty()) {
        return;
    }
    if (std::erase_if(m_refused, [known = noted(path)](const Refusal& each) { return each.path == known; }) != 0) {
        publish();
    }
}

void ProcessNote::setHeld(const std::vector<IReasons::HeldLoop>& held)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_held = held;
    publish();
}

void ProcessNote::end()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_hasEnded = true;
    for (File* const file : {&m_shown, &m_next}) {
        if (file->isOurs()) {
            comm::AtFork::close(file->descriptor);
        }
        *file = {};
    }
}

std::string ProcessNote::text() const
{
    Dictionary note{{"process", m_process}, {"pid", ::getpid()}, {"runDirectory", m_runDirectory}};
    Value::Array refused;
    for (const Refusal& refusal : m_refused) {
        refused.emplace_back(Dictionary{{"path", refusal.path}, {"reason", refusal.reason}, {"when", refusal.when}});
    }
    note.set("refused", std::move(refused));
    if (m_held) {
        Value::Array holds;
        for (const IReasons::HeldLoop& held : *m_held) {
            holds.emplace_back(Dictionary{{"loop", held.loop}, {"holder", noted(held.holder)}, {"since", held.since}});
        }
        note.set("holds", std::move(holds));
    }
    return Value(std::move(note)).toText();
}

void ProcessNote::publish()
{
    if (m_hasEnded) {
        return;
    }
    std::string written = text();
    while (written.size() > MOST_BYTES && !m_refused.empty()) {
        m_refused.pop_front();
        written = text();
    }
    if (show(written)) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[ProcessNote] others cannot read what this process says of itself: %s",
                   std::system_category().message(errno).c_str());
    }
}

bool ProcessNote::show(std::string_view text)
{
    if (!m_next.isOurs()) {
        m_next = makeFile();
    }
    const File file = std::exchange(m_next, {});
    if (file.descriptor == -1) {
        return true;
    }
    bool failed = ::write(file.descriptor, text.data(), text.size()) != static_cast<ssize_t>(text.size());
    if (!failed && !m_shown.isOurs()) {
        m_shown = file;
    } else {
        failed = failed || ::dup3(file.descriptor, m_shown.descriptor, O_CLOEXEC) == -1;
        m_shown.inode = failed ? m_shown.inode : file.inode;
        comm::AtFork::close(file.descriptor);
    }
    m_next = makeFile(); // now that a descriptor is free
    return failed;
}

ProcessNote::File ProcessNote::makeFile()
{
    const int made = comm::AtFork::open(makeMemoryFile);
    return made == -1 ? File() : File{made, inodeOf(made)};
}

bool ProcessNote::File::isOurs() const
{
    return descriptor != -1 && inodeOf(descriptor) == inode;
}

} // namespace kesa::runtime::v02
