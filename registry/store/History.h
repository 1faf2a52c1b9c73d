#ifndef KESA_REGISTRY_STORE_HISTORY_H
#define KESA_REGISTRY_STORE_HISTORY_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kesa::registry {

/// A process, as it calls itself and as the kernel knows it.
struct Who {
    std::string process;
    std::int64_t pid = -1; ///< -1: unknown, as the next one
    std::int64_t uid = -1;
};

/// What became of registrations, for those who ask why a service is not there: the last events of the paths that had
/// any last. What is there has none: so a system that starts does not displace what is remembered.
class History {
public:
    struct Event {
        enum class What {
            eWITHDRAWN, ///< by its process
            eLOST,      ///< with the connection of its process
            eFORBIDDEN, ///< by a policy that was read again
            eREFUSED,   ///< a claim
        };
        What what = What::eWITHDRAWN;
        std::int64_t since = 0; ///< when what has ended was registered, in milliseconds since 1970; of a claim: 0
        std::int64_t when = 0;
        Who who;            ///< provided or claimed it
        std::string reason; ///< for people
    };

    static constexpr std::size_t MAX_PATHS = 1000;
    static constexpr std::size_t MAX_EVENTS = 4; ///< of a path
    static constexpr std::size_t MAX_BYTES = 1U << 20U;
    static constexpr std::size_t MAX_TEXT_BYTES = 256; ///< of a name or reason; longer ones are cut

    /// A claim that is refused again and again counts as its last time.
    void add(const std::string& path, Event event);
    /// From the oldest to the latest. Valid until the next change.
    const std::vector<Event>& of(std::string_view path) const;

    std::size_t bytes() const noexcept { return m_bytes; }
    std::size_t paths() const noexcept { return m_entries.size(); }

private:
    struct Entry {
        std::string path;
        std::vector<Event> events;
        std::size_t bytes = 0;
    };
    void measure(Entry& entry);

    std::list<Entry> m_entries;                                     ///< the latest first
    std::map<std::string_view, std::list<Entry>::iterator> m_paths; ///< the keys lie in the entries
    std::size_t m_bytes = 0;
};

} // namespace kesa::registry

#endif
