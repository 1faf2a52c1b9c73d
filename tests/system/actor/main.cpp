// kesa_system_actor PROCESS: a process of the system that does what it is told in lines on stdin, and tells what
// happens to it in lines on stdout: an `Actor`, and what `COMMANDS` below adds. The end of stdin is the end of the
// test: it exits.

#include "actor/Actor.h"

#include <kesa/runtime/v02/KesaRuntime.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>
#include <string>

extern char** environ;

using kesa::runtime::v02::KesaRuntime;

namespace {

void say(const std::string& event)
{
    const std::string line = event + '\n';
    static_cast<void>(::write(STDOUT_FILENO, line.data(), line.size()) < 0);
}

std::string word(std::istream& words)
{
    std::string next;
    words >> next;
    return next;
}

/// The child waits for its parent's death, and then reads the commands in its place. "raw": behind the back of the
/// handlers that the libraries have installed for `fork`, so that everything stays open in it.
void forkChild(std::istream& words)
{
    std::array<int, 2> parentLives{};
    static_cast<void>(::pipe2(parentLives.data(), O_CLOEXEC));
    const pid_t child = word(words) == "raw" ? ::_Fork() : ::fork();
    if (child != 0) {
        say("forked " + std::to_string(child));
        return;
    }
    ::close(parentLives[1]);
    char nothing = 0;
    static_cast<void>(::read(parentLives[0], &nothing, 1) < 0);
    say("orphaned");
}

void spawnChild(std::istream&)
{
    std::array<int, 2> untilMyEnd{};
    static_cast<void>(::pipe2(untilMyEnd.data(), O_CLOEXEC));
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, untilMyEnd[0], STDIN_FILENO);
    std::string program = "cat";
    const std::array<char*, 2> arguments{program.data(), nullptr};
    pid_t child = 0;
    const int error = ::posix_spawnp(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    say(error == 0 ? "spawned " + std::to_string(child) : "no child: error " + std::to_string(error));
}

void handleTerm(std::istream&)
{
    struct sigaction action {};
    action.sa_handler = [](int) { say(::gettid() == ::getpid() ? "sigterm main" : "sigterm elsewhere"); };
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    say("handling");
}

/// What only a process of its own can do.
const std::map<std::string, void (*)(std::istream&)> COMMANDS = {
    {"fork", &forkChild},         // [raw]: forked PID; the child: orphaned
    {"spawn", &spawnChild},       // spawned PID
    {"handle-term", &handleTerm}, // handling; later sigterm main
};

void obey(kesa::actor::Actor& actor, const std::string& line)
{
    std::istringstream words(line);
    const auto command = COMMANDS.find(word(words));
    if (command != COMMANDS.end()) {
        command->second(words);
    } else if (!actor.obey(line)) {
        say("unknown " + line);
    }
}

/// Byte by byte: what comes after it may be a child's.
bool readLine(std::string& line)
{
    line.clear();
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) == 1) {
        if (byte == '\n') {
            return true;
        }
        line.push_back(byte);
    }
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2 || KesaRuntime::initInstance(argv[1])) {
        say("not started");
        return 1;
    }
    say("started");
    const auto actor = std::make_unique<kesa::actor::Actor>(*KesaRuntime::getInstance(), say);
    std::string line;
    while (readLine(line)) {
        if (line == "quit") {
            KesaRuntime::shutdown();
            say("ended");
            return 0;
        }
        obey(*actor, line);
    }
    ::_exit(0);
}
