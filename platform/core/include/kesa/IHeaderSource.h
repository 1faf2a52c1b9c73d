#ifndef KESA_IHEADERSOURCE_H
#define KESA_IHEADERSOURCE_H

#include <kesa/GenericObject.h>

#include <atomic>
#include <string_view>

namespace kesa {

/// Headers as they arrived, decoded when somebody asks, once for all copies of a request or response. Any thread.
class KESA_API IHeaderSource {
public:
    virtual ~IHeaderSource();
    virtual GenericObject decode() const = 0;
    /// One of them, undefined when absent, without decoding the others.
    virtual util::config::Value find(std::string_view name) const = 0;

    /// What `decode` answered at the first question.
    const GenericObject& headers() const;

private:
    mutable std::atomic<const GenericObject*> m_headers{nullptr};
};

} // namespace kesa

#endif
