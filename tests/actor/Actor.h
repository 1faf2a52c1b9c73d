#ifndef KESA_TESTS_ACTOR_ACTOR_H
#define KESA_TESTS_ACTOR_ACTOR_H

#include "Beliefs.h"
#include "Clients.h"
#include "Streams.h"
#include "Used.h"
#include "actor/Service.h"

#include <kesa/Disposable.h>
#include <kesa/runtime/v02/IKesaRuntime.h>

#include <istream>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kesa::actor {

/// A program of a user's that does what it is told, one command a line, and says what happens to it. `COMMANDS` in
/// Actor.cpp is the list of both. Told by one thread; says from any.
class Actor {
public:
    Actor(runtime::v02::IKesaRuntime& runtime, const Say& say);

    static bool knows(const std::string& command);
    /// False when there is no such command.
    bool obey(const std::string& line);
    /// Gives back all it has, so that nothing of it is left; says "disposed".
    void disposeAll();
    /// Handlers it gave to its runtime that still live.
    int livingHandlers() const { return m_streams.living(); }

private:
    using Words = std::istream;

    struct Commands;
    void provide(Words& words);
    void withdraw(Words& words);
    void allow(Words& words);
    void resolve(Words& words);
    void drop(Words& words);
    void follow(Words& words);
    void call(Words& words);
    void cancel(Words& words);
    void feed(Words& words);
    void use(Words& words);
    void reach(Words& words);
    void track(Words& words);
    void untrack(Words& words);
    void expect(Words& words, bool isAll);
    void churn(Words& words);
    void failed(const std::string& what, const Response& error);

    struct Issued {
        ClientApi client;
        void* handle;
    };

    runtime::v02::IKesaRuntime& m_runtime;
    const Say m_say;
    const Streams m_streams;
    Service m_service;
    Clients m_clients;
    Beliefs m_beliefs;
    std::map<std::string, std::unique_ptr<Used>> m_used;
    std::map<std::string, Issued> m_issued;
    std::map<std::string, std::vector<Disposable>> m_registrations; ///< also those that were refused
    std::map<std::string, Disposable> m_resolved;
    std::map<std::string, Disposable> m_tracked;
};

} // namespace kesa::actor

#endif
