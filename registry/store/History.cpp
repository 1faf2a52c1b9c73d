#include "store/History.h"

#include <utility>

namespace kesa::registry {

namespace {

/// Never inside a character of UTF-8.
void cut(std::string& text)
{
    std::size_t size = History::MAX_TEXT_BYTES;
    if (text.size() <= size) {
        return;
    }
    while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xC0U) == 0x80U) {
        --size;
    }
    text.resize(size);
    text.shrink_to_fit();
}

bool isSameRefusal(const History::Event& a, const History::Event& b)
{
    return a.what == History::Event::What::eREFUSED && b.what == a.what && a.who.process == b.who.process &&
           a.who.pid == b.who.pid;
}

} // namespace

void History::add(const std::string& path, Event event)
{
    cut(event.who.process);
    cut(event.reason);
    const auto known = m_paths.find(path);
    if (known == m_paths.end()) {
        m_entries.push_front({path, {}, 0});
        m_paths.emplace(m_entries.front().path, m_entries.begin());
    } else {
        m_entries.splice(m_entries.begin(), m_entries, known->second);
    }
    auto& events = m_entries.front().events;
    if (!events.empty() && isSameRefusal(events.back(), event)) {
        events.pop_back();
    } else if (events.size() == MAX_EVENTS) {
        events.erase(events.begin());
    }
    events.push_back(std::move(event));
    measure(m_entries.front());
    while (m_entries.size() > MAX_PATHS || m_bytes > MAX_BYTES) {
        m_bytes -= m_entries.back().bytes;
        m_paths.erase(m_entries.back().path);
        m_entries.pop_back();
    }
}

void History::measure(Entry& entry)
{
    m_bytes -= entry.bytes;
    entry.bytes = sizeof entry + entry.path.size();
    for (const Event& event : entry.events) {
        entry.bytes += sizeof event + event.who.process.size() + event.reason.size();
    }
    m_bytes += entry.bytes;
}

const std::vector<History::Event>& History::of(std::string_view path) const
{
    static const std::vector<Event>& nothing = *new std::vector<Event>;
    const auto found = m_paths.find(path);
    return found == m_paths.end() ? nothing : found->second->events;
}

} // namespace kesa::registry
