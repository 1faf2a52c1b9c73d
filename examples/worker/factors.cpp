// factors NUMBER...: prints what /factory makes of each number; it has ten seconds for each.

#include <kesa/ease/Runtime.h>
#include <kesa/ease/use.h>

#include <iostream>

int main(int argc, char** argv)
{
    const kesa::Runtime runtime = kesa::startOrExit("factors");

    for (int i = 1; i < argc; ++i) {
        const std::string number = argv[i];
        const kesa::Request request("retrieve", "/factors/" + number);
        const kesa::GetResult factors = kesa::get("/factory", request, std::chrono::seconds(10));
        std::cout << number << ": " << (factors ? kesa::body<std::string>(*factors.response) : factors.error) << '\n';
    }
}
