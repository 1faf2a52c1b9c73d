#ifndef KESA_COMMADAPTER_BACKEND_CLIENT_DEADLINES_H
#define KESA_COMMADAPTER_BACKEND_CLIENT_DEADLINES_H

#include <comm/Clock.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace kesa::commadapter {

/// When requests have to have been answered, soonest first. One that has been answered stays until it comes up, or
/// until most of them are such: adding costs little, ending nothing, and nothing is searched.
class Deadlines {
public:
    struct Deadline {
        comm::TimeNs when;
        std::uint64_t handle;
    };
    /// Answers whether a request still has its limit.
    using IsLimited = std::function<bool(std::uint64_t handle)>;

    explicit Deadlines(IsLimited isLimited);

    void add(const Deadline& deadline);
    /// One of them has lost its limit, or is about to.
    void ended() noexcept;
    /// The soonest; `comm::NEVER` when there is none.
    comm::TimeNs next();
    /// Takes the soonest, if it is due.
    std::optional<Deadline> takeDue(comm::TimeNs now);

    std::size_t sizeForTest() const noexcept { return m_heap.size(); }

private:
    void pop();

    const IsLimited m_isLimited;
    std::vector<Deadline> m_heap;
    std::size_t m_ended = 0; ///< how many of `m_heap`
};

} // namespace kesa::commadapter

#endif
