#ifndef COMM_CURRENTLOOP_H
#define COMM_CURRENTLOOP_H

#include <comm/onAnyLoop.h>

namespace comm {

/// Marks this thread as running `loop` for the scope. Simulated loops nest: while one waits, others run on top of it.
class CurrentLoop {
public:
    explicit CurrentLoop(const LoopInfo* loop) noexcept;
    ~CurrentLoop();
    CurrentLoop(const CurrentLoop&) = delete;
    CurrentLoop& operator=(const CurrentLoop&) = delete;

private:
    const LoopInfo* m_before;
};

} // namespace comm

#endif
