#include <kesa/RequestContext.h>

#include <utility>

namespace kesa {

namespace {

/// Together, since each access to something of a thread's own costs.
struct Handling {
    const RequestContext* context = nullptr;
    std::optional<comm::TimeNs> deadline;
};
thread_local Handling handling;

} // namespace

const RequestContext* RequestContext::current() noexcept
{
    return handling.context;
}

std::optional<comm::TimeNs> RequestContext::deadline() noexcept
{
    return handling.deadline;
}

RequestContext::Scope::Scope(const RequestContext* context, std::optional<comm::TimeNs> deadline) noexcept
{
    Handling& here = handling;
    m_context = std::exchange(here.context, context);
    m_deadline = std::exchange(here.deadline, deadline);
}

RequestContext::Scope::~Scope()
{
    Handling& here = handling;
    here.context = m_context;
    here.deadline = m_deadline;
}

} // namespace kesa
