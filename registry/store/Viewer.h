#ifndef KESA_REGISTRY_STORE_VIEWER_H
#define KESA_REGISTRY_STORE_VIEWER_H

#include "store/Record.h"

#include <cstdint>
#include <memory>
#include <utility>

namespace kesa::registry {

/// What those who share it may see. They are told of a record, and of its end, only if it is among that.
class Sight {
public:
    explicit Sight(std::uint64_t number) noexcept : m_number(number) {}
    virtual ~Sight();
    Sight(const Sight&) = delete;
    Sight& operator=(const Sight&) = delete;

    virtual bool sees(const Record& record) = 0;
    /// Differs from that of every other one.
    std::uint64_t number() const noexcept { return m_number; }

private:
    const std::uint64_t m_number;
};
using SightPtr = std::shared_ptr<Sight>; ///< null: all that is there

/// Who is to be told: what he can reach, and what he may see.
struct Viewer {
    Viewer(Realm reached = nullptr, SightPtr seen = nullptr) : realm(std::move(reached)), sight(std::move(seen)) {}

    Realm realm;
    SightPtr sight;
};

inline bool sees(const SightPtr& sight, const Record& record)
{
    return !sight || sight->sees(record);
}

} // namespace kesa::registry

#endif
