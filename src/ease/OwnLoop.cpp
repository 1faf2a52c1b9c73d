#include <kesa/ease/OwnLoop.h>
#include <obr/holdAcrossFork.h>

#include <unistd.h>

#include <map>
#include <mutex>
#include <utility>

namespace kesa::detail {

namespace {

/// Any thread.
struct OwnLoopTable {
    struct Entry {
        std::weak_ptr<comm::ActiveObject> loop;
        std::shared_ptr<OwnLoop> own;
    };
    std::mutex mutex; ///< of all below
    std::map<const comm::ActiveObject*, Entry> entries;
    std::function<void(const std::shared_ptr<const OwnLoop>&)> found;
    pid_t watcher = 0; ///< the process that has set that

    static OwnLoopTable& instance()
    {
        static OwnLoopTable& table = *[] {
            obr::holdAcrossFork<&OwnLoopTable::lock>();
            return new OwnLoopTable;
        }();
        return table;
    }
    static std::mutex& lock() { return instance().mutex; }
};

} // namespace

OwnLoop::OwnLoop(const std::shared_ptr<comm::ActiveObject>& loop)
    : m_loop(loop), m_hold(loop ? loop->name() : std::string(), [this] { return heldFor(); })
{}

std::shared_ptr<OwnLoop> OwnLoop::of(const std::shared_ptr<comm::ActiveObject>& loop)
{
    if (!loop) {
        return std::make_shared<OwnLoop>(loop);
    }
    OwnLoopTable& table = OwnLoopTable::instance();
    const std::lock_guard<std::mutex> lock(table.mutex);
    const auto known = table.entries.find(loop.get());
    if (known != table.entries.end() && !known->second.loop.expired()) {
        return known->second.own;
    }
    std::erase_if(table.entries, [](const auto& entry) { return entry.second.loop.expired(); });
    auto own = std::make_shared<OwnLoop>(loop);
    table.entries.emplace(loop.get(), OwnLoopTable::Entry{loop, own});
    if (table.found && table.watcher == ::getpid()) {
        table.found(own);
    }
    return own;
}

void OwnLoop::watchAll(std::function<void(const std::shared_ptr<const OwnLoop>&)> found)
{
    OwnLoopTable& table = OwnLoopTable::instance();
    const std::lock_guard<std::mutex> lock(table.mutex);
    table.found.swap(found);
    table.watcher = ::getpid();
    if (table.found) {
        for (const auto& [pointer, entry] : table.entries) {
            table.found(entry.own);
        }
    }
}

} // namespace kesa::detail
