// lamps: provides a few lamps, each with the room it is in, until SIGINT or SIGTERM.

#include <kesa/ease/Property.h>
#include <kesa/ease/Runtime.h>
#include <kesa/ease/announceCrashes.h>
#include <kesa/ease/provide.h>

#include <iostream>
#include <list>

struct Lamp {
    Lamp(const std::string& path, const std::string& room)
        : light(false, [path](bool isOn) { std::cout << path + (isOn ? " is on\n" : " is off\n") << std::flush; })
    {
        light.serveWritable(*service, "/light");
        registration = kesa::provide(path, service, {{"room", room}}); // what others may ask for
    }

    kesa::Property<bool> light;
    std::shared_ptr<kesa::ResourceHandler> service = std::make_shared<kesa::ResourceHandler>();
    std::unique_ptr<kesa::Registration> registration;
};

int main()
{
    kesa::announceCrashes();
    kesa::Runtime runtime = kesa::startOrExit("lamps");

    std::list<Lamp> lamps;
    lamps.emplace_back("/lamps/ceiling", "hall");
    lamps.emplace_back("/lamps/mirror", "hall");
    lamps.emplace_back("/lamps/bed", "attic");

    runtime.runUntilSignal();
}
