#include <comm/processStart.h>
#include <comm/wallClock.h>

#include "monotonicClock.h"

#include <unistd.h>

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
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(in, line, '\0'); // which fails where the process ends meanwhile; iterators of the buffer would throw
    const std::size_t name = line.rfind(')');
    return name == std::string::npos ? std::string() : line.substr(name + 1);
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

TimeNs processStart(pid_t pid)
{
    constexpr int START = 19;
    const TimeNs ticks = numberAt(fieldsAfterName(pid), START); // since the machine's start
    if (ticks == 0) {
        return 0;
    }
    return wallClock() - readClock(CLOCK_BOOTTIME) + ticks * (SECOND / ::sysconf(_SC_CLK_TCK));
}

} // namespace comm
