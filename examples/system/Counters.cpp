#include "Counters.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace examples {

namespace {

struct NetworkLine {
    std::string interface;
    std::uint64_t receivedBytes = 0;
    std::uint64_t receivedPackets = 0;
    std::uint64_t sentBytes = 0;
    std::uint64_t sentPackets = 0;
};

std::vector<NetworkLine> readNetworkLines()
{
    std::ifstream file("/proc/net/dev");
    std::vector<NetworkLine> lines;
    for (std::string text; std::getline(file, text);) {
        const std::size_t colon = text.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        NetworkLine line;
        line.interface = text.substr(text.find_first_not_of(' '), colon - text.find_first_not_of(' '));
        std::istringstream numbers(text.substr(colon + 1));
        std::uint64_t skipped = 0;
        numbers >> line.receivedBytes >> line.receivedPackets;
        for (int column = 0; column < 6; ++column) {
            numbers >> skipped;
        }
        numbers >> line.sentBytes >> line.sentPackets;
        lines.push_back(line);
    }
    return lines;
}

} // namespace

kesa::GenericObject CpuCounter::read()
{
    std::ifstream file("/proc/stat");
    std::string word;
    file >> word;
    std::uint64_t total = 0;
    std::uint64_t idle = 0;
    std::uint64_t ticks = 0;
    for (int column = 0; column < 8 && file >> ticks; ++column) {
        total += ticks;
        idle += (column == 3 || column == 4) ? ticks : 0; // idle, and waiting for I/O
    }
    const std::uint64_t busy = total - idle;
    const double share =
        total > m_total ? static_cast<double>(busy - m_busy) / static_cast<double>(total - m_total) : 0.0;
    m_busy = busy;
    m_total = total;
    return {{"busy_percent", std::round(share * 1000.0) / 10.0}};
}

kesa::GenericObject readMemory()
{
    std::ifstream file("/proc/meminfo");
    kesa::GenericObject memory;
    std::string name;
    std::int64_t kib = 0;
    for (std::string rest; file >> name >> kib; std::getline(file, rest)) {
        if (name == "MemTotal:") {
            memory.set("total_kib", kib);
        } else if (name == "MemAvailable:") {
            memory.set("available_kib", kib);
        }
    }
    return memory;
}

kesa::GenericObject readLoad()
{
    std::ifstream file("/proc/loadavg");
    double one = 0;
    double five = 0;
    double fifteen = 0;
    file >> one >> five >> fifteen;
    return {{"1_min", one}, {"5_min", five}, {"15_min", fifteen}};
}

std::vector<std::string> networkInterfaces()
{
    std::vector<std::string> names;
    for (const NetworkLine& line : readNetworkLines()) {
        names.push_back(line.interface);
    }
    return names;
}

kesa::GenericObject readNetwork(const std::string& interface)
{
    for (const NetworkLine& line : readNetworkLines()) {
        if (line.interface == interface) {
            return {{"received_bytes", line.receivedBytes},
                    {"received_packets", line.receivedPackets},
                    {"sent_bytes", line.sentBytes},
                    {"sent_packets", line.sentPackets}};
        }
    }
    return {};
}

std::vector<std::string> disks()
{
    std::vector<std::string> names;
    std::error_code error; // without /sys there are none
    for (const auto& entry : std::filesystem::directory_iterator("/sys/block", error)) {
        if (std::filesystem::exists(entry.path() / "device", error)) {
            names.push_back(entry.path().filename().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

kesa::GenericObject readDisk(const std::string& disk)
{
    constexpr std::uint64_t SECTOR = 512; // of these counters, whatever the disk has
    std::ifstream file("/sys/block/" + disk + "/stat");
    std::uint64_t reads = 0;
    std::uint64_t readSectors = 0;
    std::uint64_t writes = 0;
    std::uint64_t writtenSectors = 0;
    std::uint64_t skipped = 0;
    file >> reads >> skipped >> readSectors >> skipped >> writes >> skipped >> writtenSectors;
    if (!file) {
        return {};
    }
    return {{"reads", reads},
            {"read_bytes", readSectors * SECTOR},
            {"writes", writes},
            {"written_bytes", writtenSectors * SECTOR}};
}

kesa::GenericObject readFilesystem()
{
    std::error_code error;
    const std::filesystem::space_info space = std::filesystem::space("/", error);
    if (error) {
        return {};
    }
    return {{"total_mib", std::uint64_t{space.capacity >> 20U}},
            {"available_mib", std::uint64_t{space.available >> 20U}}};
}

} // namespace examples
