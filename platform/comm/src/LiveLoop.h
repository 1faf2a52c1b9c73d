#ifndef COMM_LIVELOOP_H
#define COMM_LIVELOOP_H

namespace comm {

/// Counts the loops of the process that have not ended: the scheduler must not be replaced under one.
class LiveLoop {
public:
    LiveLoop() noexcept;
    ~LiveLoop();
    LiveLoop(const LiveLoop&) = delete;
    LiveLoop& operator=(const LiveLoop&) = delete;
    static int count() noexcept;
};

} // namespace comm

#endif
