// remote: has /player do this and that, and prints what came of it.

#include <kesa/ease/Runtime.h>
#include <kesa/ease/use.h>

#include <iostream>

void tell(kesa::Client& player, const kesa::Request& wish, std::chrono::milliseconds timeout)
{
    const kesa::GetResult answer = kesa::get(player, wish, timeout);
    std::cout << wish.getCommand() << ' ' << wish.getPath() << ": ";
    if (answer) {
        std::cout << "done " << answer.response->getPayload().text() << '\n';
    } else {
        std::cout << answer.error << '\n'; // such as "409: there is nothing to play"; answer.status is the number
    }
}

int main()
{
    const kesa::Runtime runtime = kesa::startOrExit("remote");
    const kesa::ConnectResult player = kesa::connect("/player", std::chrono::seconds(10));
    if (!player) {
        std::cerr << player.error << '\n';
        return 1;
    }

    tell(*player.client, kesa::Request("update", "/play"), std::chrono::seconds(10));
    const kesa::Request wish("insert", "/titles", kesa::asPayload("So What")); // also a number, what has a `serialize`
    tell(*player.client, wish, std::chrono::seconds(10));
    tell(*player.client, kesa::Request("update", "/play"), std::chrono::seconds(10));
    tell(*player.client, kesa::Request("update", "/eject"), std::chrono::seconds(10));
    tell(*player.client, kesa::Request("retrieve", "/end"), std::chrono::milliseconds(500)); // is told the limit, too
}
