#include "Board.h"

#include <util/config/Value.h>

#include <array>

namespace examples {

void Board::connected(const std::string& path, const kesa::serviceregistry::ServiceDef& service)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Row& row = m_rows[path];
    row.isThere = true;
    row.since = comm::now();
    row.provider = service.metainfo ? std::string((*service.metainfo)["provider"].stringView()) : "";
    write(path, "connected", R"(,"provider":")" + row.provider + '"');
}

void Board::lost(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Row& row = m_rows[path];
    row.isThere = false;
    row.since = comm::now();
    write(path, "lost");
}

void Board::answered(const std::string& path, comm::TimeNs took, const std::string& value)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Row& row = m_rows[path];
    row.callTook = took;
    row.value = value;
    write(path, "answer", R"(,"took_ns":)" + std::to_string(took) + R"(,"value":)" + value);
}

void Board::streamed(const std::string& path, const std::string& value)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Row& row = m_rows[path];
    row.value = value;
    ++row.values;
    write(path, "value", R"(,"value":)" + value);
}

void Board::write(const std::string& path, const char* event, const std::string& more)
{
    if (m_events != nullptr) {
        std::fprintf(m_events,
                     R"({"at_ns":%lld,"path":"%s","event":"%s"%s})"
                     "\n",
                     static_cast<long long>(comm::now()), path.c_str(), event, more.c_str());
        std::fflush(m_events);
    }
}

std::string Board::table() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::array<char, 512> line{};
    std::string text;
    const auto add = [&](auto... columns) {
        std::snprintf(line.data(), line.size(), "  %-22.22s %-15.15s %-10s %8s %9s %7s  %.80s\n", columns...);
        text += line.data();
    };
    add("service", "provider", "state", "since", "call", "values", "latest");
    const comm::TimeNs now = comm::now();
    for (const auto& [path, row] : m_rows) {
        std::array<char, 32> since{};
        std::array<char, 32> took{"-"};
        std::snprintf(since.data(), since.size(), "%.1f s", static_cast<double>(now - row.since) / 1e9);
        if (row.callTook > 0) {
            std::snprintf(took.data(), took.size(), "%.0f us", static_cast<double>(row.callTook) / 1000.0);
        }
        add(path.c_str(), row.provider.c_str(), row.isThere ? "connected" : "GONE", since.data(), took.data(),
            std::to_string(row.values).c_str(), row.value.c_str());
    }
    return m_rows.empty() ? "  no service below /system; waiting\n" : text;
}

} // namespace examples
