// thermometer: provides /thermometer, whose temperature may be asked for and followed, until SIGINT or SIGTERM.

#include <kesa/ease/Runtime.h>
#include <kesa/ease/Topic.h>
#include <kesa/ease/announceCrashes.h>
#include <kesa/ease/provide.h>

int main()
{
    kesa::announceCrashes();
    kesa::Topic<double> celsius; // before the runtime: others may ask for it until that has ended
    kesa::Runtime runtime = kesa::startOrExit("thermometer");

    const auto service = std::make_shared<kesa::ResourceHandler>();
    celsius.serve(*service, "/celsius"); // answers the last value, and streams each further one
    const auto thermometer = kesa::provide("/thermometer", service);

    double sensor = 20.0;
    runtime.runUntilSignal(std::chrono::milliseconds(200), [&] {
        celsius.publish(sensor);
        sensor += 0.5;
    });
}
