// Two inotify watches: one in the directory, one in its nearest existing parent. The parent's is needed even while the
// directory exists: a directory that somebody has open reports nothing when it is removed. After each change of the
// directory itself both are set again and everybody is told, because files may have come or gone in between.

#include "transport/EndpointWatch.h"

#include <obr/explainError.h>

#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

namespace kesa::commadapter::transport {

namespace {

constexpr std::uint32_t SELF = IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr std::uint32_t COMING = IN_CREATE | IN_MOVED_TO;
constexpr std::uint32_t GOING = IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO; // the last one in its place
constexpr std::uint32_t IN_ANCESTOR = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | SELF;
constexpr std::uint32_t IS_GONE = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

/// While the watches cannot be set again, everybody is told once a second.
constexpr comm::TimeNs POLL = comm::SECOND;

std::string parentOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

/// The system has the texts of other limits for those of inotify.
std::string explainUnwatched(int error)
{
    const auto explain = [](const char* what, const char* limit) {
        return fmt::format("all processes of this user together have used up their inotify {}: let them have more "
                           "(sysctl fs.inotify.{}) or end some",
                           what, limit);
    };
    if (error == ENOSPC) {
        return explain("watches", "max_user_watches");
    }
    if (error == EMFILE &&
        Descriptor::open([] { return ::eventfd(0, EFD_CLOEXEC); })) { // so it is not this process's descriptors
        return explain("instances", "max_user_instances");
    }
    return obr::explainError(error);
}

Descriptor makeInotify()
{
    return Descriptor::open([] { return ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC); });
}

bool isMissing(int error)
{
    return error == ENOENT || error == ENOTDIR;
}

} // namespace

/// What one batch of events means.
struct EndpointWatch::News {
    bool isDirectoryChanged = false;
    bool isOverflow = false;
    std::set<std::string, std::less<>> appeared;

    void add(const inotify_event& event, int directory, int ancestor, std::string_view awaited)
    {
        const std::string_view name = event.len > 0 ? std::string_view(event.name) : std::string_view();
        if ((event.mask & IN_Q_OVERFLOW) != 0U) {
            isOverflow = true;
        } else if (event.wd != directory && event.wd != ancestor) {
            return; // of a watch that has been removed
        } else if ((event.mask & IS_GONE) != 0U || (event.wd == ancestor && name == awaited)) {
            isDirectoryChanged = true;
        } else if (event.wd == directory) {
            appeared.emplace(name);
        }
    }
};

EndpointWatch::EndpointWatch(std::shared_ptr<comm::Reactor> loop, const std::string& directory,
                             std::function<void(const std::string& why)> tellPolling, What what)
    : m_loop(std::move(loop)), m_path(directory), m_tellPolling(std::move(tellPolling)), m_what(what),
      m_self(std::make_shared<EndpointWatch*>(this))
{}

EndpointWatch::~EndpointWatch()
{
    clear();
}

comm::Reactor::Id EndpointWatch::add(const std::string& file, Appeared appeared, std::string& why)
{
    if (!m_inotify && open()) {
        const int error = errno;
        shutDown();
        why = explainUnwatched(error);
        return 0;
    }
    const comm::Reactor::Id id = ++m_lastId;
    m_watchers.emplace(id, Watcher{file, std::make_shared<Appeared>(std::move(appeared))});
    return id;
}

void EndpointWatch::remove(comm::Reactor::Id id)
{
    const auto watcher = m_watchers.extract(id); // dies when the table is in order
    if (m_watchers.empty()) {
        shutDown();
    }
}

void EndpointWatch::clear()
{
    const auto watchers = std::exchange(m_watchers, {});
    shutDown();
}

void EndpointWatch::notify(comm::Reactor::Id id)
{
    m_loop->post([weak = std::weak_ptr(m_self), id] {
        const auto self = weak.lock();
        if (!self) {
            return;
        }
        const auto found = (*self)->m_watchers.find(id);
        if (found != (*self)->m_watchers.end()) {
            const auto appeared = found->second.appeared; // it may remove itself
            (*appeared)();
        }
    });
}

void EndpointWatch::notifyAll()
{
    for (const auto& watcher : m_watchers) {
        notify(watcher.first);
    }
}

std::string EndpointWatch::findShortage()
{
    const Descriptor inotify = makeInotify();
    return inotify ? std::string() : explainUnwatched(errno);
}

bool EndpointWatch::open()
{
    m_inotify = makeInotify();
    if (!m_inotify || arm()) {
        return true;
    }
    m_watch = m_loop->watch(m_inotify.get(), comm::Reactor::eREADABLE, [this](unsigned /*ready*/) { onEvents(); });
    return m_watch == 0;
}

void EndpointWatch::shutDown()
{
    if (m_watch != 0) {
        m_loop->unwatch(std::exchange(m_watch, 0));
    }
    if (m_timer != 0) {
        m_loop->cancelTimer(std::exchange(m_timer, 0));
    }
    m_inotify.reset();
    m_isPolling = false;
    m_directory = -1;
    m_ancestor = -1;
}

void EndpointWatch::disarm()
{
    for (int* const watch : {&m_directory, &m_ancestor}) {
        if (*watch >= 0) {
            ::inotify_rm_watch(m_inotify.get(), *watch);
            *watch = -1;
        }
    }
}

/// Sets both watches so that no change in between is missed: the parent's comes first. True when they cannot be set,
/// for the reason in `errno`.
bool EndpointWatch::arm()
{
    // Again when something appeared behind the back of the parent's watch; who makes it appear ever again is not
    // served.
    for (int attempt = 0; attempt < 16; ++attempt) {
        disarm();
        std::string child = m_path;
        int error = 0;
        for (;;) {
            m_ancestor = ::inotify_add_watch(m_inotify.get(), parentOf(child).c_str(), IN_ANCESTOR);
            error = errno;
            if (m_ancestor >= 0 || !isMissing(errno) || parentOf(child) == "/") {
                break;
            }
            child = parentOf(child);
        }
        m_awaited = child.substr(child.rfind('/') + 1);
        if (child == m_path) {
            m_directory = ::inotify_add_watch(m_inotify.get(), m_path.c_str(),
                                              SELF | (m_what == What::eAPPEARED ? COMING : GOING));
            if (m_directory >= 0 || !isMissing(errno)) {
                return m_directory < 0;
            }
            errno = error;
            return m_ancestor < 0;
        }
        if (m_ancestor < 0) {
            return true;
        }
        if (::access(child.c_str(), F_OK) != 0) {
            return false;
        }
    }
    return true;
}

/// After a change of the directory itself.
void EndpointWatch::rearm()
{
    const bool failed = arm();
    const int error = errno;
    if (!std::exchange(m_isPolling, failed) && failed) {
        m_tellPolling(explainUnwatched(error));
    }
    if (failed && m_timer == 0) {
        m_timer = m_loop->startTimer(comm::now() + POLL, [this] {
            m_timer = 0;
            rearm();
        });
    }
    notifyAll();
}

void EndpointWatch::onEvents()
{
    News news;
    alignas(inotify_event) std::array<char, 8192> buffer;
    for (;;) {
        const ssize_t size = retryInterrupted([&] { return ::read(m_inotify.get(), buffer.data(), buffer.size()); });
        if (size <= 0) {
            break;
        }
        for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
            const auto* const event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
            news.add(*event, m_directory, m_ancestor, m_awaited);
            at += sizeof(inotify_event) + event->len;
        }
    }
    if (news.isDirectoryChanged || news.isOverflow) {
        rearm();
        return;
    }
    for (const auto& [id, watcher] : m_watchers) {
        if (news.appeared.contains(watcher.file)) {
            notify(id);
        }
    }
}

} // namespace kesa::commadapter::transport
