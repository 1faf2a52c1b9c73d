// visitor [NAME]: asks /greeter for a greeting, for ten seconds at most.

#include <kesa/ease/Runtime.h>
#include <kesa/ease/use.h>

#include <iostream>

int main(int argc, char** argv)
{
    const kesa::Runtime runtime = kesa::startOrExit("visitor");

    const std::string name = argc > 1 ? argv[1] : "world";
    const kesa::GetResult greeting =
        kesa::get("/greeter", kesa::Request("retrieve", "/hello/" + name), std::chrono::seconds(10));
    if (!greeting) {
        std::cerr << greeting.error << '\n'; // nobody provides it, or what it has answered
        return 1;
    }
    std::cout << kesa::body<std::string>(*greeting.response) << '\n';
}
