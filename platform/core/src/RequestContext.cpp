#include <kesa/RequestContext.h>

#include <utility>

namespace kesa {

namespace {
thread_local const RequestContext* currentContext = nullptr;
} // namespace

const RequestContext* RequestContext::current() noexcept
{
    return currentContext;
}

RequestContext::Scope::Scope(const RequestContext* context) noexcept : m_before(std::exchange(currentContext, context))
{}

RequestContext::Scope::~Scope()
{
    currentContext = m_before;
}

} // namespace kesa
