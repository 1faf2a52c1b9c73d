#ifndef KESA_EXAMPLES_SYSTEM_COUNTERS_H
#define KESA_EXAMPLES_SYSTEM_COUNTERS_H

#include <kesa/GenericObject.h>

#include <cstdint>
#include <string>
#include <vector>

/// This machine's own counters, out of /proc and /sys.
namespace examples {

/// Busy share of the processors since the last question.
class CpuCounter {
public:
    kesa::GenericObject read();

private:
    std::uint64_t m_busy = 0;
    std::uint64_t m_total = 0;
};

kesa::GenericObject readMemory();
kesa::GenericObject readLoad();

std::vector<std::string> networkInterfaces();
/// Bytes and packets of one interface; empty when there is none of that name.
kesa::GenericObject readNetwork(const std::string& interface);

/// Real devices, none that only show a file or memory.
std::vector<std::string> disks();
/// Reads and writes of one disk since the machine started; empty when there is none of that name.
kesa::GenericObject readDisk(const std::string& disk);
/// Space of the root file system.
kesa::GenericObject readFilesystem();

} // namespace examples

#endif
