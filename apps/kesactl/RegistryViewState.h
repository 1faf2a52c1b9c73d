#ifndef KESACTL_REGISTRYVIEWSTATE_H
#define KESACTL_REGISTRYVIEWSTATE_H

#include "Failure.h"
#include "RegistryView.h"

#include <kesa/IKesaApi.h>

namespace kesactl {

/// What the registry has told, and what of that is still to be told to the command.
/// Shared with the handlers, which may be called as long as the runtime runs.
struct RegistryView::State : std::enable_shared_from_this<State> {
    void connected(const std::shared_ptr<kesa::IKesaApi>& api);
    void toldOfRegistry(const kesa::Response& answer);
    void lost();
    void refused(const kesa::Response& error);
    void told(const kesa::Response& answer);
    void failed(const std::string& fault);
    /// The requests, if there are some. Not with the mutex held, which their answers take.
    void cancel();
    /// Whether the services of before have had the time to return to a registry that was started anew.
    bool isSettled() const { return isComplete && comm::now() >= settledAt; }
    /// False at the deadline, which moves by what this process stood still; a `Failure` when the registry refuses, or
    /// nobody is there any more to read the output.
    bool await(std::unique_lock<std::mutex>& lock, comm::TimeNs& deadline, const std::function<bool()>& predicate);

    const kesa::url registry;
    const std::string glob;
    std::mutex mutex; // between the backend's loop and the main thread, which waits
    comm::Condition changed;
    // With the mutex held.
    bool isConnected = false;
    bool isComplete = false; ///< the first answer of this connection has ended
    bool hasEnded = false;   ///< the view
    comm::TimeNs completedAt = 0;
    bool isInterrupted = false;
    std::shared_ptr<kesa::IKesaApi> client;
    void* query = nullptr;
    void* tracking = nullptr; ///< of the registry itself
    comm::TimeNs settledAt = comm::NEVER;
    Services services;
    std::size_t bytes = 0; ///< of memory, which they take
    bool wasLost = false;
    Services beforeLoss; ///< of what `events` had come to, what has not come back yet
    std::deque<Event> events;
    std::optional<Services> behind; ///< too many events wait; this is what they come to, and further ones are left out
    std::size_t leftOut = 0;
    std::optional<Failure> failure; ///< nothing more comes
    std::string unavailable;        ///< what the registry, while connected, has answered with 503

    State(kesa::url locator, std::string pattern) : registry(std::move(locator)), glob(std::move(pattern)) {}

    void announceGone();
    void catchUp();

private:
    /// Of `services`. A registry has room for twice as much; who means all of that asks for parts of it.
    static constexpr std::size_t MOST_BYTES = std::size_t{256} << 20U;

    void forget(const std::string& path);
    void push(Event event);
    void fallBehind();
    void apply(std::vector<kesa::serviceregistry::RegistryUpdate>&& updates);
    void announce(const ServiceDef& service);
};

} // namespace kesactl

#endif
