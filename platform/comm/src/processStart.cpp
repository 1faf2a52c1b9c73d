#include <comm/processStart.h>
#include <comm/wallClock.h>

#include "monotonicClock.h"

#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

namespace comm {

namespace {

/// What the kernel says of the process after its name, in parentheses that may be in it, too; empty when it is gone.
std::string fieldsAfterName(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    const std::string line{std::istreambuf_iterator<char>(in), {}};
    const std::size_t name = line.rfind(')');
    return name == std::string::npos ? std::string() : line.substr(name + 1);
}

} // namespace

bool isProcessStopped(pid_t pid)
{
    const std::string fields = fieldsAfterName(pid);
    return fields.size() > 1 && (fields[1] == 'T' || fields[1] == 't');
}

TimeNs processStart(pid_t pid)
{
    constexpr int FIELDS_BEFORE = 19; // between the name and the start
    std::istringstream fields(fieldsAfterName(pid));
    std::string passed;
    for (int field = 0; field < FIELDS_BEFORE; ++field) {
        fields >> passed;
    }
    TimeNs ticks = 0; // since the machine's start
    if (!(fields >> ticks)) {
        return 0;
    }
    return wallClock() - readClock(CLOCK_BOOTTIME) + ticks * (SECOND / ::sysconf(_SC_CLK_TCK));
}

} // namespace comm
