#include <comm/Reactor.h>
#include <comm/whyDeaf.h>

namespace comm {

std::string whyDeaf(const std::vector<std::shared_ptr<const LoopHold>>& holds)
{
    for (const auto& hold : holds) {
        if (const TimeNs held = hold->heldFor(); held > Reactor::LONG_CALLBACK) {
            return "this process's " + hold->loop() + " has been held for " + std::to_string(held / MILLISECOND) +
                   " ms by " + hold->holder() +
                   ", so it hears of nothing: leave what takes long or waits to a thread of your own, as kesa::on does";
        }
    }
    return {};
}

} // namespace comm
