// A descriptor that was inherited must stay as it is: O_NONBLOCK would apply to everybody who shares it. So a write
// is made only when `poll` says that there is room, and is no larger than the room it promises. Of a terminal that is
// less than a line may need; so that is opened once more, for this process alone.
#include "LineOutput.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tracing {
namespace {

constexpr int PATIENCE_MS = 100;

/// Keeps a pipe without reader from killing the process: the signal is blocked, and eaten if this thread caused it.
class WithoutSigpipe {
public:
    WithoutSigpipe() noexcept
    {
        ::sigemptyset(&m_signal);
        ::sigaddset(&m_signal, SIGPIPE);
        sigset_t pending;
        ::sigpending(&pending);
        m_wasPending = ::sigismember(&pending, SIGPIPE) == 1;
        if (!m_wasPending) {
            ::pthread_sigmask(SIG_BLOCK, &m_signal, &m_before);
        }
    }
    ~WithoutSigpipe()
    {
        if (m_wasPending) {
            return;
        }
        const timespec noTime{};
        while (::sigtimedwait(&m_signal, nullptr, &noTime) < 0 && errno == EINTR) {
        }
        ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }
    WithoutSigpipe(const WithoutSigpipe&) = delete;
    WithoutSigpipe& operator=(const WithoutSigpipe&) = delete;

private:
    sigset_t m_signal{};
    sigset_t m_before{};
    bool m_wasPending = false;
};

} // namespace

LineOutput::LineOutput(int descriptor, Ownership ownership) noexcept : m_descriptor(descriptor), m_ownership(ownership)
{}

LineOutput::~LineOutput()
{
    flush();
    if (m_terminal >= 0) {
        ::close(m_terminal);
    }
    if (m_ownership == Ownership::eOWNED) {
        ::close(m_descriptor);
    }
}

void LineOutput::write(std::string_view line) noexcept
{
    // Asked every time: what stands behind the standard descriptors may be exchanged.
    const Kind what = kind();
    if (!tellLost(what) || !writeWhole(what, line)) {
        ++m_lostLines;
        m_loser = ::getpid();
    }
}

void LineOutput::flush() noexcept
{
    m_isClogged = false;
    static_cast<void>(tellLost(kind()));
}

/// False when that would not be read.
bool LineOutput::tellLost(Kind kind) noexcept
{
    if (m_lostLines == 0 || m_loser != ::getpid()) {
        m_lostLines = 0;
        return true;
    }
    char text[96];
    const int size = std::snprintf(text, sizeof text, "%skesa: %llu lines lost, %s\n", m_isCut ? "\n" : "",
                                   static_cast<unsigned long long>(m_lostLines),
                                   kind == Kind::eFILE ? "they could not be written" : "their reader did not keep up");
    if (!writeWhole(kind, {text, static_cast<std::size_t>(size)})) {
        return false;
    }
    m_lostLines = 0;
    m_isCut = false;
    return true;
}

LineOutput::Kind LineOutput::kind() noexcept
{
    struct stat status {};
    if (::fstat(m_descriptor, &status) == 0) {
        if (S_ISSOCK(status.st_mode)) {
            return Kind::eSOCKET;
        }
        if (S_ISFIFO(status.st_mode)) {
            return Kind::ePIPE;
        }
        if (S_ISCHR(status.st_mode)) {
            openTerminal(status.st_rdev);
            return m_terminal < 0 ? Kind::eFILE : Kind::eTERMINAL;
        }
    }
    return Kind::eFILE;
}

void LineOutput::openTerminal(dev_t device) noexcept
{
    if (device == m_terminalDevice) {
        return;
    }
    m_terminalDevice = device;
    if (m_terminal >= 0) {
        ::close(m_terminal);
        m_terminal = -1;
    }
    if (::isatty(m_descriptor) == 1) {
        char path[32];
        std::snprintf(path, sizeof path, "/proc/self/fd/%d", m_descriptor);
        m_terminal = ::open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }
}

bool LineOutput::isReady(Kind kind, int timeoutMs) const noexcept
{
    pollfd poll{kind == Kind::eTERMINAL ? m_terminal : m_descriptor, POLLOUT, 0};
    int count = 0;
    do {
        count = ::poll(&poll, 1, timeoutMs);
    } while (count < 0 && errno == EINTR);
    return count == 1 && (poll.revents & POLLOUT) != 0;
}

/// The number of bytes written; 0 when that failed.
std::size_t LineOutput::writeSome(Kind kind, std::string_view rest) noexcept
{
    ssize_t written = 0;
    do {
        if (kind == Kind::eSOCKET) {
            written = ::send(m_descriptor, rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        } else if (kind == Kind::ePIPE) {
            const WithoutSigpipe guard;
            written = ::write(m_descriptor, rest.data(), std::min<std::size_t>(rest.size(), PIPE_BUF));
        } else {
            written = ::write(kind == Kind::eTERMINAL ? m_terminal : m_descriptor, rest.data(), rest.size());
        }
    } while (written < 0 && errno == EINTR);
    m_error = written < 0 && kind == Kind::eFILE ? errno : 0;
    return written > 0 ? static_cast<std::size_t>(written) : 0;
}

bool LineOutput::writeWhole(Kind kind, std::string_view line) noexcept
{
    for (std::string_view rest = line; !rest.empty();) {
        const bool hasRoom = isReady(kind, m_isClogged ? 0 : PATIENCE_MS);
        const std::size_t written = hasRoom ? writeSome(kind, rest) : 0;
        if (written == 0) {
            m_isClogged = !hasRoom;
            m_isCut = m_isCut || rest.size() < line.size();
            return false;
        }
        rest.remove_prefix(written);
    }
    m_isClogged = false;
    return true;
}

} // namespace tracing
