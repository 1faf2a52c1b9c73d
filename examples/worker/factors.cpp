// factors NUMBER...: prints what /factory makes of each number; it has ten seconds for each.

#include <kesa/ease/Runtime.h>
#include <kesa/ease/use.h>

#include <iostream>

int main(int argc, char** argv)
{
    const kesa::Runtime runtime = kesa::startOrExit("factors");
    const kesa::ConnectResult factory = kesa::connect("/factory", std::chrono::seconds(10));
    if (!factory) {
        std::cerr << factory.error << '\n';
        return 1;
    }

    for (int i = 1; i < argc; ++i) {
        const std::string number = argv[i];
        const kesa::GetResult factors =
            kesa::get(*factory.client, kesa::Request("retrieve", "/factors/" + number), std::chrono::seconds(10));
        std::cout << number << ": " << (factors ? factors.response->getPayload().text() : factors.error) << '\n';
    }
}
