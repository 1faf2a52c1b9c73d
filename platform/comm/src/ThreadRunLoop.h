#ifndef COMM_THREADRUNLOOP_H
#define COMM_THREADRUNLOOP_H

#include <comm/IRunLoop.h>

#include <memory>
#include <string>

namespace comm {

/// A run loop with a thread of its own.
class ThreadRunLoop final : public IRunLoop {
public:
    explicit ThreadRunLoop(const std::string& name);
    ~ThreadRunLoop() override;

    void enque(util::SharedPtr<ActiveObjectEvent> event) override;
    void stop() override;
    bool isCurrent() const noexcept override;
    void watch(util::UniqueFunction<void(TimeNs)> tell) override;
    TimeNs lap() override;
    TimeNs heldFor() const noexcept override;

private:
    struct Shared;
    std::shared_ptr<Shared> m_shared; ///< with the thread
};

} // namespace comm

#endif
