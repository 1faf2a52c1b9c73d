#include "Board.h"

#include <util/config/Value.h>

#include <algorithm>
#include <array>

namespace examples {

void Board::expect(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_rows[path];
}

void Board::connected(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_rows[path].state = "connected";
    ++m_rows[path].connections;
    write(path, "connected");
}

void Board::lost(const std::string& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_rows[path].state = "LOST";
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

void Board::failed(const std::string& path, const std::string& error)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_rows[path].state = "FAILED: " + error;
    write(path, "failed");
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
        std::snprintf(line.data(), line.size(), "  %-24.24s %-10.24s %11s %8s  %.90s\n", columns...);
        text += line.data();
    };
    add("service", "state", "call", "values", "latest");
    for (const auto& [path, row] : m_rows) {
        std::array<char, 32> took{"-"};
        if (row.callTook > 0) {
            std::snprintf(took.data(), took.size(), "%.0f us", static_cast<double>(row.callTook) / 1000.0);
        }
        add(path.c_str(), row.state.c_str(), took.data(), std::to_string(row.values).c_str(), row.value.c_str());
    }
    return text;
}

} // namespace examples
