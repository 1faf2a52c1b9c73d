#include <runtime/v02/runtime/LoopWatch.h>

#include <comm/endThrown.h>
#include <runtime/v02/runtime/channels.h>

#include <fmt/format.h>

#include <utility>

namespace kesa::runtime::v02 {

LoopWatch::LoopWatch(const std::shared_ptr<comm::ActiveObject>& loop, std::string name)
    : m_loop(*loop),
      m_hold(std::make_shared<comm::LoopHold>(std::move(name), [weak = std::weak_ptr<const comm::ActiveObject>(loop)] {
          const auto alive = weak.lock();
          return alive ? alive->heldFor() : 0;
      }))
{
    loop->watch([this](comm::TimeNs held) { traceHeld("a handler", held); });
}

std::string LoopWatch::shortNameOf(const char* operation, const std::string& subject)
{
    return "the handler of " + std::string(operation) + " for '" + subject + '\'';
}

std::string LoopWatch::nameOf(const char* operation, const std::string& subject)
{
    return "the handler of " + std::string(operation) + ", told of '" + subject + "',";
}

void LoopWatch::endThrown(const char* operation, const std::string& subject)
{
    comm::endThrown(MAIN_CHANNEL, nameOf(operation, subject));
}

void LoopWatch::traceHeld(const std::string& what, comm::TimeNs held)
{
    if (const auto end = m_traces.pass(comm::now())) {
        KESA_TRACE_TEXT(MAIN_CHANNEL, 3,
                        fmt::format("[loop] {} took {} ms on the {}, in which this process heard of no service: leave "
                                    "what takes long or waits to a thread of your own, as kesa::on does{}",
                                    what, held / comm::MILLISECOND, m_hold->loop(), *end));
    }
}

} // namespace kesa::runtime::v02
