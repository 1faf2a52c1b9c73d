#include <runtime/v02/runtime/ProcessNote.h>

#include <comm/Clock.h>
#include <comm/OwnDescriptors.h>
#include <comm/wallClock.h>
#include <fmt/format.h>
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

std::int64_t wallMilliseconds()
{
    return comm::wallClock() / comm::MILLISECOND;
}

/// In the place of an earlier one of its path.
template <class T>
void addLast(std::deque<T>& all, T added)
{
    std::erase_if(all, [&added](const T& each) { return each.path == added.path; });
    all.push_back(std::move(added));
    if (all.size() > ProcessNote::MOST_OF_EACH) {
        all.pop_front();
    }
}

void setIfAny(Dictionary& note, const char* member, Value::Array all)
{
    if (!all.empty()) {
        note.set(member, std::move(all));
    }
}

void setHolds(Dictionary& note, const std::vector<IReasons::HeldLoop>& held)
{
    Value::Array ofRuntime;
    Value::Array own;
    for (const IReasons::HeldLoop& each : held) {
        Dictionary hold{{"loop", noted(each.loop)}, {"holder", noted(each.holder)}, {"since", each.since}};
        if (each.waiting) {
            hold.set("waiting", *each.waiting);
            Value::Array services;
            for (const std::string& service : each.services) {
                services.emplace_back(noted(service));
            }
            setIfAny(hold, "services", std::move(services));
        }
        (each.waiting ? own : ofRuntime).emplace_back(std::move(hold));
    }
    note.set("holds", std::move(ofRuntime));
    setIfAny(note, "ownHolds", std::move(own));
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
    : m_process(obr::visible(process)), m_runDirectory(obr::visible(runDirectory)),
      m_runDirectoryId(directoryId(runDirectory))
{
    publish();
}

std::string ProcessNote::directoryId(const std::string& path)
{
    struct stat status {};
    return ::stat(path.c_str(), &status) != 0 ? std::string() : fmt::format("{:x}:{:x}", status.st_dev, status.st_ino);
}

ProcessNote::~ProcessNote()
{
    end();
}

void ProcessNote::addRefusal(const std::string& path, const Response& error)
{
    std::string reason = reasonOf(error);
    reason.resize(std::min(reason.size(), MOST_OF_REASON));
    const std::lock_guard<std::mutex> lock(m_mutex);
    addLast(m_refused, Refusal{noted(path), obr::visible(reason), wallMilliseconds()});
    publish();
}

void ProcessNote::addDropped(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    addLast(m_dropped, Dropped{noted(path), wallMilliseconds()});
    publish();
}

void ProcessNote::setRegistered(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_refused.empty() && m_dropped.empty()) {
        return;
    }
    const auto isIt = [known = noted(path)](const auto& each) { return each.path == known; };
    if (std::erase_if(m_refused, isIt) + std::erase_if(m_dropped, isIt) != 0) {
        publish();
    }
}

void ProcessNote::addTooSlow(const std::string& path, const std::string& loop)
{
    TooSlow added{noted(path), noted(loop), wallMilliseconds(), 1};
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const TooSlow& each : m_tooSlow) {
        added.times += each.path == added.path ? each.times : 0;
    }
    addLast(m_tooSlow, std::move(added));
    const comm::TimeNs now = comm::now();
    if (m_tooSlowShown == 0 || now - m_tooSlowShown >= comm::SECOND) {
        m_tooSlowShown = now;
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
            comm::OwnDescriptors::close(file->descriptor);
        }
        *file = {};
    }
}

std::string ProcessNote::text() const
{
    Dictionary note{{"process", m_process}, {"pid", ::getpid()}, {"runDirectory", m_runDirectory}};
    if (!m_runDirectoryId.empty()) {
        note.set("runDirectoryId", m_runDirectoryId);
    }
    Value::Array refused;
    for (const Refusal& refusal : m_refused) {
        refused.emplace_back(Dictionary{{"path", refusal.path}, {"reason", refusal.reason}, {"when", refusal.when}});
    }
    note.set("refused", std::move(refused));
    Value::Array dropped;
    for (const Dropped& each : m_dropped) {
        dropped.emplace_back(Dictionary{{"path", each.path}, {"when", each.when}});
    }
    setIfAny(note, "dropped", std::move(dropped));
    Value::Array tooSlow;
    for (const TooSlow& each : m_tooSlow) {
        tooSlow.emplace_back(
            Dictionary{{"path", each.path}, {"loop", each.loop}, {"when", each.when}, {"times", each.times}});
    }
    setIfAny(note, "tooSlow", std::move(tooSlow));
    if (m_held) {
        setHolds(note, *m_held);
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
        comm::OwnDescriptors::close(file.descriptor);
    }
    m_next = makeFile(); // now that a descriptor is free
    return failed;
}

ProcessNote::File ProcessNote::makeFile()
{
    const int made = comm::OwnDescriptors::open(makeMemoryFile);
    return made == -1 ? File() : File{made, inodeOf(made)};
}

bool ProcessNote::File::isOurs() const
{
    return descriptor != -1 && inodeOf(descriptor) == inode;
}

} // namespace kesa::runtime::v02
