#include "CurrentLoop.h"

#include <utility>

namespace comm {

namespace {
thread_local const LoopInfo* runningLoop = nullptr;
} // namespace

const LoopInfo* currentLoop() noexcept
{
    return runningLoop;
}

CurrentLoop::CurrentLoop(const LoopInfo* loop) noexcept : m_before(std::exchange(runningLoop, loop)) {}

CurrentLoop::~CurrentLoop()
{
    runningLoop = m_before;
}

} // namespace comm
