// system-monitor: provides this machine's own counters as services: /system/cpu, /system/memory, /system/load and
// /system/net/<interface> for each network interface. Ends on SIGINT and SIGTERM.

#include "Counters.h"
#include "provide.h"

int main()
{
    examples::Feeds feeds;
    const auto add = [&feeds](const std::string& path, std::function<kesa::GenericObject()> read) {
        feeds.push_back(std::make_unique<examples::Feed>(path, std::move(read)));
    };
    add("/system/cpu", [counter = std::make_shared<examples::CpuCounter>()] { return counter->read(); });
    add("/system/memory", examples::readMemory);
    add("/system/load", examples::readLoad);
    for (const std::string& interface : examples::networkInterfaces()) {
        add("/system/net/" + interface, [interface] { return examples::readNetwork(interface); });
    }
    return examples::provideUntilSignal("system-monitor", feeds);
}
