#include <kesa/ease/announceCrashes.h>

#include <comm/OwnDescriptors.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <mutex>
#include <unistd.h>

namespace kesa {

namespace {

constexpr std::array CRASHES{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

std::array<struct sigaction, CRASHES.size()> formerActions; ///< written before the handler can be called
/// A child made by `fork` or `vfork` has the sockets of its parent, which must not end when the child crashes.
std::atomic<pid_t> announcing{0};

/// Only functions that are safe here are called.
void announce(int signal, siginfo_t* info, void* /*context*/)
{
    const int error = errno;
    if (::getpid() == announcing.load(std::memory_order_relaxed)) {
        comm::OwnDescriptors::endSockets();
    }
    for (std::size_t i = 0; i < CRASHES.size(); ++i) {
        if (CRASHES[i] == signal) {
            ::sigaction(signal, &formerActions[i], nullptr);
        }
    }
    // What failed is done again after the return, and fails again; what was sent has to be sent again.
    if (info->si_code <= 0) {
        ::raise(signal);
    }
    errno = error;
}

void install()
{
    struct sigaction action {};
    action.sa_sigaction = announce;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (std::size_t i = 0; i < CRASHES.size(); ++i) {
        const bool isIgnored =
            ::sigaction(CRASHES[i], nullptr, &formerActions[i]) != 0 || formerActions[i].sa_handler == SIG_IGN;
        if (!isIgnored) {
            ::sigaction(CRASHES[i], &action, nullptr);
        }
    }
}

} // namespace

void announceCrashes()
{
    announcing.store(::getpid(), std::memory_order_relaxed);
    static std::once_flag once;
    std::call_once(once, install);
}

} // namespace kesa
