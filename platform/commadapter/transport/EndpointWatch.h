#ifndef KESA_COMMADAPTER_TRANSPORT_ENDPOINTWATCH_H
#define KESA_COMMADAPTER_TRANSPORT_ENDPOINTWATCH_H

#include "transport/Descriptor.h"

#include <comm/Reactor.h>
#include <util/UniqueFunction.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace kesa::commadapter::transport {

/// Tells when a file appears in a directory that may itself be missing, be removed and be made anew, or when it goes.
/// Costs nothing while nobody waits. Loop only.
class EndpointWatch {
public:
    enum class What {
        eAPPEARED, ///< made, or given its name
        eGONE,     ///< removed, moved away or replaced
    };
    /// `tellPolling` is called when the watches cannot be set again after a change of the directory: why, as `add` has
    /// it. Everybody is told once a second from then on, until they can.
    EndpointWatch(std::shared_ptr<comm::Reactor> loop, const std::string& directory,
                  std::function<void(const std::string& why)> tellPolling, What what = What::eAPPEARED);
    ~EndpointWatch();
    EndpointWatch(const EndpointWatch&) = delete;
    EndpointWatch& operator=(const EndpointWatch&) = delete;

    /// Why nothing can be watched now, and how to change that; empty when it can.
    static std::string findShortage();

    using Appeared = util::UniqueFunction<void()>;
    /// Calls `appeared`, never inside the call, each time `file` may have appeared, or gone. 0 when that cannot be
    /// watched: `why` says what is used up and how to have more.
    comm::Reactor::Id add(const std::string& file, Appeared appeared, std::string& why);
    /// Calls it once, never inside the call.
    void notify(comm::Reactor::Id id);
    void remove(comm::Reactor::Id id);
    void clear();

private:
    struct Watcher {
        std::string file;
        std::shared_ptr<Appeared> appeared;
    };
    struct News;

    bool open();
    void shutDown();
    bool arm();
    void disarm();
    void rearm();
    void onEvents();
    void notifyAll();

    const std::shared_ptr<comm::Reactor> m_loop;
    const std::string m_path;
    const std::function<void(const std::string&)> m_tellPolling;
    const What m_what;
    std::map<comm::Reactor::Id, Watcher> m_watchers;
    comm::Reactor::Id m_lastId = 0;
    /// What is posted holds it weakly, and does nothing once it is gone.
    std::shared_ptr<EndpointWatch*> m_self;

    Descriptor m_inotify;
    comm::Reactor::Id m_watch = 0;
    comm::Reactor::Id m_timer = 0;
    bool m_isPolling = false; ///< since the last change of the directory
    int m_directory = -1;     ///< watch of the directory, while it exists
    int m_ancestor = -1;      ///< watch of its nearest existing parent
    std::string m_awaited;    ///< what has to change in the ancestor to matter
};

} // namespace kesa::commadapter::transport

#endif
