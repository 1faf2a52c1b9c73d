#include "Process.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

extern char** environ;

namespace kesa::system_test {

namespace {

using Clock = std::chrono::steady_clock;

int millisecondsUntil(Clock::time_point deadline)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::max<std::int64_t>(left, 0));
}

std::string makeTraceFile(const Process::Setup& setup)
{
    static std::atomic<unsigned> count{0};
    return setup.directory + '/' + std::to_string(++count) + ".traces";
}

std::vector<char*> pointers(std::vector<std::string>& strings)
{
    std::vector<char*> result;
    for (std::string& string : strings) {
        result.push_back(string.data());
    }
    result.push_back(nullptr);
    return result;
}

[[noreturn]] void runChild(const Process::Setup& setup, int commands, int events, int traces, char** arguments,
                           char** environment, pid_t parent)
{
    ::dup2(commands, STDIN_FILENO);
    ::dup2(events, STDOUT_FILENO);
    ::dup2(traces, STDERR_FILENO);
    if (setup.user != 0 && ::geteuid() == 0 &&
        (::setgroups(0, nullptr) != 0 || ::setgid(setup.user) != 0 || ::setuid(setup.user) != 0)) {
        ::_exit(126);
    }
    ::prctl(PR_SET_PDEATHSIG, SIGKILL); // changing the user would undo it
    if (::getppid() != parent || ::chdir(setup.directory.c_str()) != 0) {
        ::_exit(126);
    }
    ::signal(SIGINT, SIG_DFL); // a script may have started the tests
    ::execve(arguments[0], arguments, environment);
    ::_exit(127);
}

} // namespace

Process::Process(const Setup& setup) : m_name(setup.name), m_traceFile(makeTraceFile(setup))
{
    std::array<int, 2> commands{};
    std::array<int, 2> events{};
    const int traces = ::open(m_traceFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (traces < 0 || ::pipe2(commands.data(), O_CLOEXEC) != 0 || ::pipe2(events.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipes for a process: " + std::string(std::strerror(errno)));
    }
    std::vector<std::string> arguments = setup.arguments;
    std::vector<std::string> environment = setup.environment;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (std::string_view(*variable).substr(0, 5) != "KESA_") {
            environment.emplace_back(*variable);
        }
    }
    const auto argumentPointers = pointers(arguments);
    const auto environmentPointers = pointers(environment);
    const pid_t parent = ::getpid();
    m_pid = ::fork();
    if (m_pid == 0) {
        runChild(setup, commands[0], events[1], traces, const_cast<char**>(argumentPointers.data()),
                 const_cast<char**>(environmentPointers.data()), parent);
    }
    ::close(commands[0]);
    ::close(events[1]);
    ::close(traces);
    m_commands = commands[1];
    m_events = events[0];
    if (m_pid < 0) {
        throw std::runtime_error("no process: " + std::string(std::strerror(errno)));
    }
}

Process::~Process()
{
    if (!m_isReaped && m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, &m_status, 0);
    }
    ::close(m_commands); // children of it end with this
    ::close(m_events);
}

void Process::send(const std::string& command)
{
    const std::string line = command + '\n';
    if (::write(m_commands, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        miss("a reader of \"" + command + '"');
    }
}

/// False at the end of its events, and at the deadline.
bool Process::readEvents(Deadline deadline)
{
    pollfd ready{m_events, POLLIN, 0};
    while (::poll(&ready, 1, millisecondsUntil(deadline)) < 0 && errno == EINTR) {
    }
    std::array<char, 4096> buffer;
    const ssize_t size = ready.revents != 0 ? ::read(m_events, buffer.data(), buffer.size()) : 0;
    if (size <= 0) {
        return false;
    }
    m_partial.append(buffer.data(), static_cast<std::size_t>(size));
    for (std::size_t end = 0; (end = m_partial.find('\n')) != std::string::npos; m_partial.erase(0, end + 1)) {
        m_told.add(m_partial.substr(0, end));
    }
    return true;
}

std::string Process::expect(const std::string& beginning, std::chrono::seconds limit)
{
    const auto deadline = Clock::now() + limit;
    std::size_t looked = 0;
    do {
        if (const auto rest = m_told.take(beginning, looked)) {
            return *rest;
        }
        looked = m_told.events().size();
    } while (readEvents(deadline));
    miss('"' + beginning + '"');
}

bool Process::hasTold(const std::string& beginning)
{
    told();
    return m_told.take(beginning).has_value();
}

std::size_t Process::countTraces(const std::string& text) const
{
    const std::string all = traces();
    std::size_t count = 0;
    for (std::size_t at = 0; (at = all.find(text, at)) != std::string::npos; at += text.size()) {
        ++count;
    }
    return count;
}

void Process::expectTrace(const std::string& text, std::size_t times)
{
    const auto deadline = Clock::now() + LIMIT;
    const int changes = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ::inotify_add_watch(changes, m_traceFile.c_str(), IN_MODIFY);
    bool isThere = false;
    while (!(isThere = countTraces(text) >= times) && millisecondsUntil(deadline) > 0) {
        pollfd ready{changes, POLLIN, 0};
        ::poll(&ready, 1, millisecondsUntil(deadline));
        std::array<char, 4096> events;
        while (::read(changes, events.data(), events.size()) > 0) {
        }
    }
    ::close(changes);
    if (!isThere) {
        miss("the trace \"" + text + '"');
    }
}

int Process::expectEnd()
{
    if (!m_isReaped) {
        const int descriptor = static_cast<int>(::syscall(SYS_pidfd_open, m_pid, 0U));
        pollfd ready{descriptor, POLLIN, 0};
        const int ended = ::poll(&ready, 1, millisecondsUntil(Clock::now() + LIMIT));
        ::close(descriptor);
        if (ended != 1) {
            miss("its end");
        }
        ::waitpid(m_pid, &m_status, 0);
        m_isReaped = true;
    }
    return m_status;
}

void Process::stop()
{
    signal(SIGSTOP);
    siginfo_t information{};
    ::waitid(P_PID, static_cast<id_t>(m_pid), &information, WSTOPPED);
}

void Process::kill()
{
    signal(SIGKILL);
    expectEnd();
}

const actor::Told& Process::told()
{
    while (readEvents(Clock::now())) {
    }
    return m_told;
}

std::string Process::findUnexpected(std::string_view beginning)
{
    return told().find(beginning);
}

std::string Process::findBad()
{
    return told().findBad();
}

void Process::waitForAny(const std::vector<Process*>& processes, Deadline deadline)
{
    std::vector<pollfd> ready;
    for (const Process* const process : processes) {
        ready.push_back({process->m_events, POLLIN, 0});
    }
    ::poll(ready.data(), ready.size(), millisecondsUntil(deadline));
}

bool Process::hasEnded()
{
    m_isReaped = m_isReaped || ::waitpid(m_pid, &m_status, WNOHANG) == m_pid;
    return m_isReaped;
}

bool Process::hasCrashed()
{
    const int signal = hasEnded() && WIFSIGNALED(m_status) ? WTERMSIG(m_status) : SIGKILL;
    return signal != SIGKILL && signal != SIGTERM && signal != SIGINT;
}

std::string Process::traces() const
{
    std::ifstream file(m_traceFile);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::size_t Process::residentKiB() const
{
    std::ifstream file("/proc/" + std::to_string(m_pid) + "/status");
    std::size_t kib = 0;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("VmRSS:")) {
            kib = std::stoul(line.substr(6));
        }
    }
    return kib;
}

std::size_t Process::openDescriptors() const
{
    const std::filesystem::directory_iterator begin("/proc/" + std::to_string(m_pid) + "/fd");
    return static_cast<std::size_t>(std::distance(begin, std::filesystem::directory_iterator()));
}

void Process::limitDescriptors(std::size_t more) const
{
    rlimit limit{};
    ::prlimit(m_pid, RLIMIT_NOFILE, nullptr, &limit);
    limit.rlim_cur = 0;
    for (std::size_t unused = 0; unused < more + 1; ++limit.rlim_cur) {
        const std::string link = "/proc/" + std::to_string(m_pid) + "/fd/" + std::to_string(limit.rlim_cur);
        unused += std::filesystem::is_symlink(link) ? 0U : 1U;
    }
    --limit.rlim_cur; // the first that it must not get
    ::prlimit(m_pid, RLIMIT_NOFILE, &limit, nullptr);
}

void Process::freeDescriptors() const
{
    rlimit limit{};
    ::prlimit(m_pid, RLIMIT_NOFILE, nullptr, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::prlimit(m_pid, RLIMIT_NOFILE, &limit, nullptr);
}

void Process::miss(const std::string& what)
{
    std::ostringstream text;
    text << m_name << ": " << what << " did not come. It told:\n";
    const auto& told = history();
    for (std::size_t i = told.size() > 60 ? told.size() - 60 : 0; i < told.size(); ++i) {
        text << "  " << told[i] << '\n';
    }
    const std::string all = traces();
    text << "Its traces:\n" << all.substr(all.size() > 6000 ? all.size() - 6000 : 0);
    throw Missing(text.str());
}

} // namespace kesa::system_test
