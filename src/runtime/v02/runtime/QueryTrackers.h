#ifndef KESA_RUNTIME_V02_QUERYTRACKERS_H
#define KESA_RUNTIME_V02_QUERYTRACKERS_H

#include <runtime/v02/runtime/Handle.h>
#include <runtime/v02/runtime/HandlerTypes.h>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

namespace kesa::runtime::v02 {

/// The chains of the queries of this process, in the order in which they are notified.
class QueryTrackers {
public:
    using List = std::vector<std::pair<Handle, std::shared_ptr<TrackingHandler>>>;

    bool empty() const noexcept { return m_list.empty(); }
    void add(const Handle& handle, std::shared_ptr<TrackingHandler> chain)
    {
        m_copy.reset();
        m_list.emplace_back(handle, std::move(chain));
    }
    /// Null: there is none.
    std::shared_ptr<TrackingHandler> take(const Handle& handle)
    {
        const auto found =
            std::find_if(m_list.begin(), m_list.end(), [&handle](const auto& each) { return each.first == handle; });
        if (found == m_list.end()) {
            return nullptr;
        }
        m_copy.reset();
        std::shared_ptr<TrackingHandler> taken = std::move(found->second);
        m_list.erase(found);
        return taken;
    }
    /// As they are now. One copy serves all updates until the next query comes or goes.
    std::shared_ptr<const List> copy() const
    {
        if (!m_copy) {
            m_copy = std::make_shared<const List>(m_list);
        }
        return m_copy;
    }

private:
    List m_list;
    mutable std::shared_ptr<const List> m_copy;
};

} // namespace kesa::runtime::v02

#endif
