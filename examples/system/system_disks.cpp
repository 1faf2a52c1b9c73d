// system-disks: provides the counters of this machine's disks as services: /system/filesystem, the space of the root
// file system, and /system/disk/<device> for each disk. Ends on SIGINT and SIGTERM.

#include "Counters.h"
#include "provide.h"

int main()
{
    examples::Feeds feeds;
    feeds.push_back(std::make_unique<examples::Feed>("/system/filesystem", examples::readFilesystem));
    for (const std::string& disk : examples::disks()) {
        feeds.push_back(
            std::make_unique<examples::Feed>("/system/disk/" + disk, [disk] { return examples::readDisk(disk); }));
    }
    return examples::provideUntilSignal("system-disks", feeds);
}
