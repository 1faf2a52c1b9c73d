#include <comm/OwnDescriptors.h>
#include <comm/processStart.h>
#include <comm/wallClock.h>

#include "monotonicClock.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

namespace comm {

namespace {

/// What the kernel says of the process after its name, in parentheses that may be in it, too; empty when it is gone.
std::string fieldsAfterName(pid_t pid)
{
    const std::string file = "/proc/" + std::to_string(pid) + "/stat";
    const int stat = OwnDescriptors::open([&file] { return ::open(file.c_str(), O_RDONLY | O_CLOEXEC); });
    if (stat < 0) {
        return {};
    }
    std::array<char, 1024> line;                                 // more than all that is asked for
    const ssize_t size = ::read(stat, line.data(), line.size()); // which fails where the process ends meanwhile
    OwnDescriptors::close(stat);
    const std::string_view fields(line.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    const std::size_t name = fields.rfind(')');
    return std::string(name == std::string_view::npos ? "" : fields.substr(name + 1));
}

/// 0 when it is not there.
TimeNs numberAt(const std::string& fieldsAfterName, int index)
{
    std::istringstream fields(fieldsAfterName);
    std::string passed;
    for (int field = 0; field < index; ++field) {
        fields >> passed;
    }
    TimeNs number = 0;
    fields >> number;
    return number;
}

bool isKillPending(pid_t pid)
{
    constexpr std::string_view MASK = "SigPnd:\t"; // of the first thread, and "ShdPnd:" of all
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    bool isPending = false;
    for (std::string line; std::getline(status, line) && !isPending;) {
        if (line.compare(0, MASK.size(), MASK) == 0 || line.compare(0, MASK.size(), "ShdPnd:\t") == 0) {
            std::uint64_t signals = 0;
            std::from_chars(line.data() + MASK.size(), line.data() + line.size(), signals, 16);
            isPending = (signals & (std::uint64_t{1} << (SIGKILL - 1))) != 0;
        }
    }
    return isPending;
}

} // namespace

bool isProcessStopped(pid_t pid)
{
    const std::string fields = fieldsAfterName(pid);
    return fields.size() > 1 && (fields[1] == 'T' || fields[1] == 't');
}

bool isProcessEnding(pid_t pid)
{
    // In this order: first it has the signal, then it takes it and exits.
    if (isKillPending(pid)) {
        return true;
    }
    const std::string fields = fieldsAfterName(pid);
    constexpr int FLAGS = 6;
    constexpr TimeNs IS_EXITING = 4;
    return fields.size() > 1 && (fields[1] == 'Z' || fields[1] == 'X' || (numberAt(fields, FLAGS) & IS_EXITING) != 0);
}

std::uint64_t processStartTicks(pid_t pid)
{
    constexpr int START = 19;
    return static_cast<std::uint64_t>(numberAt(fieldsAfterName(pid), START));
}

TimeNs processStart(pid_t pid)
{
    const auto ticks = static_cast<TimeNs>(processStartTicks(pid));
    if (ticks == 0) {
        return 0;
    }
    return wallClock() - readClock(CLOCK_BOOTTIME) + ticks * (SECOND / ::sysconf(_SC_CLK_TCK));
}

} // namespace comm
