#include <comm/ICallWatch.h>

#include <utility>

namespace comm {

namespace {
thread_local ICallWatch* callWatch = nullptr;
} // namespace

ICallWatch::~ICallWatch() = default;

ICallWatch* ICallWatch::current() noexcept
{
    return callWatch;
}

ICallWatch::Scope::Scope(ICallWatch* watch) noexcept : m_before(std::exchange(callWatch, watch)) {}

ICallWatch::Scope::~Scope()
{
    callWatch = m_before;
}

} // namespace comm
