#ifndef KESA_EASE_SERVEDLOOPS_H
#define KESA_EASE_SERVEDLOOPS_H

#include <comm/ActiveObject.h>
#include <comm/onAnyLoop.h>
#include <kesa/IKesaApi.h>
#include <kesa/url.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace kesa {

namespace runtime::v02 {
class IRuntimeRegistry;
}

namespace detail {

/// Where a service given to `on` is served. The loop is never owned, not even for a moment: whoever asks may run on it,
/// and must not be the last who lets go of it.
class ServedLoop {
public:
    explicit ServedLoop(const std::shared_ptr<comm::ActiveObject>& loop)
        : m_loop(loop), m_name(loop ? loop->name() : std::string())
    {}
    /// On the loop, before it serves anything.
    void noteHere() noexcept { m_here = comm::currentLoop(); }
    /// This call runs on it, so that nothing is served there before it returns.
    bool isHere() const noexcept
    {
        const comm::LoopInfo* const here = comm::currentLoop();
        return here != nullptr && here == m_here && !m_loop.expired(); // else another may be in its place
    }
    const std::string& name() const noexcept { return m_name; }

private:
    const std::weak_ptr<comm::ActiveObject> m_loop;
    const std::string m_name;
    std::atomic<const comm::LoopInfo*> m_here{nullptr};
};

/// How who provides a service object finds where it is served.
struct HasServedLoop {
    HasServedLoop() = default;
    HasServedLoop(const HasServedLoop&) = delete;
    HasServedLoop& operator=(const HasServedLoop&) = delete;
    virtual ~HasServedLoop() = default;
    std::shared_ptr<ServedLoop> servedLoop; ///< never null
};

/// A service that this process provides, from when it is registered until this is destroyed. Any thread.
class ServedHere {
public:
    /// `loop` is null when `on` has no part in it.
    ServedHere(const runtime::v02::IRuntimeRegistry* runtime, std::shared_ptr<const ServedLoop> loop);
    ServedHere(const ServedHere&) = delete;
    ServedHere& operator=(const ServedHere&) = delete;
    ~ServedHere();
    void registered(const std::vector<url>& locators);

    /// Where all of `locators` lead to, if that is one loop; null when it is none, or not known.
    static std::shared_ptr<const ServedLoop> find(const runtime::v02::IRuntimeRegistry* runtime,
                                                  const std::vector<url>& locators);

private:
    const runtime::v02::IRuntimeRegistry* const m_runtime;
    const std::shared_ptr<const ServedLoop> m_loop;
};

/// Why this call must not wait for an answer of `api`: it is served on the loop that this call runs on. Empty when it
/// may, or when that cannot be known: no call is refused that could be answered.
std::string refusalToWaitFor(const IKesaApi& api);

} // namespace detail

} // namespace kesa

#endif
