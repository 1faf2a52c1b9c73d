#include <kesa/commands.h>

namespace kesa::commands {

int toId(std::string_view name) noexcept
{
    int id = 0;
    for (const std::string_view command : {RETRIEVE, UPDATE, DELETE, INSERT}) {
        if (command == name) {
            return id;
        }
        ++id;
    }
    return -1;
}

} // namespace kesa::commands
