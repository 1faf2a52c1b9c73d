// Who waits on a loop for a service that is served on the same loop waits for himself. A request of a process to itself
// goes the way of all others, so at its end nothing tells who waits; but the records of what this process provides say
// where each is served, and a client knows to which locators it is connected.
#include "ServedLoops.h"

#include "ClientImpl.h"

#include <comm/onAnyLoop.h>
#include <fmt/format.h>

#include <map>
#include <mutex>
#include <utility>

namespace kesa::detail {

using runtime::v02::IRuntimeRegistry;

namespace {

/// By runtime and locator. Any thread.
struct Table {
    using Key = std::pair<const IRuntimeRegistry*, std::string>;
    struct Entry {
        const ServedHere* by;
        std::shared_ptr<const OwnLoop> loop;
    };
    std::mutex mutex;
    std::map<Key, Entry> entries; ///< with the mutex held

    static Table& instance()
    {
        static Table& table = *new Table;
        return table;
    }
};

} // namespace

ServedHere::ServedHere(const IRuntimeRegistry* runtime, std::shared_ptr<const OwnLoop> loop)
    : m_runtime(runtime), m_loop(std::move(loop))
{}

ServedHere::~ServedHere()
{
    if (m_loop) {
        Table& table = Table::instance();
        const std::lock_guard<std::mutex> lock(table.mutex);
        std::erase_if(table.entries, [this](const auto& entry) { return entry.second.by == this; });
    }
}

void ServedHere::registered(const std::vector<url>& locators)
{
    Table& table = Table::instance();
    const std::lock_guard<std::mutex> lock(table.mutex);
    for (const url& locator : locators) {
        if (m_loop) {
            table.entries.insert_or_assign({m_runtime, locator.toString()}, Table::Entry{this, m_loop});
        } else {
            table.entries.erase({m_runtime, locator.toString()}); // of who was there before
        }
    }
}

std::shared_ptr<const OwnLoop> ServedHere::find(const IRuntimeRegistry* runtime, const std::vector<url>& locators)
{
    Table& table = Table::instance();
    const std::lock_guard<std::mutex> lock(table.mutex);
    std::shared_ptr<const OwnLoop> loop;
    for (const url& locator : locators) {
        const auto found = table.entries.find({runtime, locator.toString()});
        if (found == table.entries.end() || (loop && loop != found->second.loop)) {
            return nullptr;
        }
        loop = found->second.loop;
    }
    return loop;
}

std::vector<std::string> servedOn(const OwnLoop& loop)
{
    constexpr std::size_t MOST = 16;
    Table& table = Table::instance();
    const std::lock_guard<std::mutex> lock(table.mutex);
    std::vector<std::string> paths;
    for (const auto& [key, entry] : table.entries) {
        if (entry.loop.get() == &loop && paths.size() < MOST) {
            paths.emplace_back(url(key.second).path());
        }
    }
    return paths;
}

std::string refusalToWaitFor(const IKesaApi& api)
{
    if (!comm::onAnyLoop()) {
        return {};
    }
    std::shared_ptr<const OwnLoop> loop;
    std::string service = "the service";
    if (const auto* const client = dynamic_cast<const Client*>(&api)) {
        loop = client->m_impl->servedHere();
        service = '\'' + client->path() + '\'';
    } else if (const auto* const served = dynamic_cast<const HasServedLoop*>(&api)) {
        loop = served->servedLoop;
    }
    return loop && loop->isHere()
               ? fmt::format("kesa::get can not wait on the loop '{}' for {}, which is served on the same loop "
                             "(kesa::on): it would wait for itself; call request with a handler, or serve the one "
                             "that asks on a loop of its own",
                             loop->name(), service)
               : std::string();
}

} // namespace kesa::detail
