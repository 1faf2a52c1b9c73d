#include "EpollSet.h"

#include <comm/OwnDescriptors.h>
#include <comm/Reactor.h>
#include <obr/ErrorOutput.h>
#include <obr/GlobalErrorHandler.h>
#include <obr/errors.h>
#include <obr/explainError.h>

#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace comm {

namespace {

std::uint32_t toEpoll(unsigned interest) noexcept
{
    return ((interest & Reactor::eREADABLE) != 0U ? EPOLLIN : 0U) |
           ((interest & Reactor::eWRITABLE) != 0U ? EPOLLOUT : 0U);
}

} // namespace

EpollSet::EpollSet(const std::string& loopName)
    : m_loopName(loopName), m_epoll(OwnDescriptors::open([] { return ::epoll_create1(EPOLL_CLOEXEC); })),
      m_wake(OwnDescriptors::open([] { return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); })),
      m_timer(OwnDescriptors::open([] { return ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK); }))
{
    const auto addOwn = [this](int descriptor) {
        epoll_event event{};
        event.events = EPOLLIN | EPOLLET;
        event.data.ptr = descriptor == m_timer ? &m_timer : nullptr;
        return ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, descriptor, &event) == 0;
    };
    if (m_epoll < 0 || m_wake < 0 || m_timer < 0 || !addOwn(m_wake) || !addOwn(m_timer)) {
        const std::string message =
            fmt::format("cannot make the I/O loop '{}': {}", loopName, obr::explainError(errno));
        obr::GlobalErrorHandler::doAbort(__FILE__, __LINE__, __func__, message.c_str());
    }
}

EpollSet::~EpollSet()
{
    for (const int descriptor : {m_epoll, m_wake, m_timer}) {
        OwnDescriptors::close(descriptor);
    }
}

bool EpollSet::add(int descriptor, unsigned interest, void* whom)
{
    return control(EPOLL_CTL_ADD, descriptor, interest, whom);
}

bool EpollSet::change(int descriptor, unsigned interest, void* whom)
{
    return control(EPOLL_CTL_MOD, descriptor, interest, whom);
}

bool EpollSet::remove(int descriptor)
{
    return control(EPOLL_CTL_DEL, descriptor, 0, nullptr);
}

/// A refusal for want of memory or watches is the kernel's word; the others are misuse.
bool EpollSet::control(int operation, int descriptor, unsigned interest, void* whom) const
{
    epoll_event event{};
    event.events = toEpoll(interest);
    event.data.ptr = whom;
    if (::epoll_ctl(m_epoll, operation, descriptor, &event) == 0) {
        return false;
    }
    const int error = errno;
    const std::string message = fmt::format("the loop '{}' cannot watch descriptor {}: {}", m_loopName, descriptor,
                                            std::system_category().message(error));
    if (error != ENOMEM && error != ENOSPC) {
        obr::GlobalErrorHandler::doAssert(false, "epoll_ctl(...) == 0", __FILE__, __LINE__, __func__, message.c_str());
    }
    return obr::ErrorOutput(__FILE__, __LINE__, true)(obr::errors::Error, obr::errors::TEXT, message);
}

unsigned EpollSet::readiness(const epoll_event& event) noexcept
{
    return ((event.events & EPOLLIN) != 0U ? Reactor::eREADABLE : 0U) |
           ((event.events & EPOLLOUT) != 0U ? Reactor::eWRITABLE : 0U) |
           ((event.events & (EPOLLHUP | EPOLLERR)) != 0U ? Reactor::eHANGUP : 0U);
}

void EpollSet::wake() const noexcept
{
    const std::uint64_t one = 1;
    while (::write(m_wake, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void EpollSet::setTimer(TimeNs next) noexcept
{
    if (next < m_timerSetTo) {
        m_timerSetTo = next;
        const TimeNs when = std::max<TimeNs>(next, 1); // 0 would mean none
        const itimerspec time{{}, {static_cast<time_t>(when / SECOND), static_cast<long>(when % SECOND)}};
        ::timerfd_settime(m_timer, TFD_TIMER_ABSTIME, &time, nullptr);
    }
}

std::span<const epoll_event> EpollSet::wait(bool mayBlock) noexcept
{
    const int count = ::epoll_wait(m_epoll, m_events.data(), static_cast<int>(m_events.size()), mayBlock ? -1 : 0);
    return {m_events.data(), static_cast<std::size_t>(std::max(count, 0))};
}

} // namespace comm
