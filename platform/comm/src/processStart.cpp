#include <comm/processStart.h>
#include <comm/wallClock.h>

#include "monotonicClock.h"

#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

namespace comm {

TimeNs processStart(pid_t pid)
{
    constexpr int FIELDS_BEFORE = 19; // between the name, in parentheses that may be in it, too, and the start
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    const std::string line{std::istreambuf_iterator<char>(in), {}};
    const std::size_t name = line.rfind(')');
    if (name == std::string::npos) {
        return 0;
    }
    std::istringstream fields(line.substr(name + 1));
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
