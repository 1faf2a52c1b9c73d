#ifndef KESA_EXAMPLES_SYSTEM_BOARD_H
#define KESA_EXAMPLES_SYSTEM_BOARD_H

#include <comm/Clock.h>
#include <kesa/serviceregistry/ServiceDef.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>

namespace examples {

/// What the watcher knows of each service: shown as a table, and written down as one JSON line per event. Any thread.
class Board {
public:
    /// `events` may be null; it stays the caller's.
    explicit Board(std::FILE* events) : m_events(events) {}

    void connected(const std::string& path, const kesa::serviceregistry::ServiceDef& service);
    void lost(const std::string& path);
    void answered(const std::string& path, comm::TimeNs took, const std::string& value);
    void streamed(const std::string& path, const std::string& value);

    std::string table() const;

private:
    struct Row {
        bool isThere = false;
        comm::TimeNs since = 0;
        std::string provider;
        std::string value;
        comm::TimeNs callTook = 0;
        std::uint64_t values = 0;
    };
    void write(const std::string& path, const char* event, const std::string& more = {});

    std::FILE* const m_events;
    mutable std::mutex m_mutex;
    std::map<std::string, Row> m_rows; ///< by path; under `m_mutex`
};

} // namespace examples

#endif
