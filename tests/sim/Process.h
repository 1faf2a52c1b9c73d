#ifndef KESA_TESTS_SIM_PROCESS_H
#define KESA_TESTS_SIM_PROCESS_H

#include "CheckedBackend.h"
#include "Observers.h"
#include "actor/Actor.h"
#include "sim/Service.h"

#include <backend/CommBackend.h>
#include <kesa/Disposable.h>
#include <kesa/registry/RegistryHost.h>
#include <kesa/serviceregistry/Query.h>
#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kesa::sim {

enum class Stream { eTRACK, eQUERY, eRESOLVE, eTRACK_RESOLVE, eQUERY_RESOLVE };

struct Subscription {
    Stream kind;
    std::string target;           ///< path or locator
    serviceregistry::Query query; ///< instead, of a query
    Disposable disposable;
    std::shared_ptr<Belief> belief;
    bool disposed = false;

    bool isQuery() const { return kind == Stream::eQUERY || kind == Stream::eQUERY_RESOLVE; }
};

struct Registration {
    std::string path;
    Disposable disposable;
    std::shared_ptr<Belief> belief;
};

/// One simulated process: a runtime with its backend, and what its program holds.
struct Process {
    std::string name;
    bool isRegistry = false;
    bool isStopped = false;
    std::uint64_t group = 0;                   ///< of its present instance
    std::unique_ptr<kesa::actor::Actor> actor; ///< outlives its runtime; instead of all that is below
    std::unique_ptr<runtime::v02::KesaRuntimeImpl> runtime;
    std::unique_ptr<registry::RegistryHost> host;
    std::shared_ptr<Belief> list; ///< the registry's own
    std::shared_ptr<BackendBooks> books;
    std::vector<Subscription> subscriptions;
    std::vector<Registration> registrations;
    std::vector<std::shared_ptr<Belief>> answers;
    std::vector<std::shared_ptr<Service>> services;
    std::string document; ///< its own; empty: the world's
    std::optional<commadapter::CommSettings> settings;

    bool isRunning() const { return runtime && !isStopped; }
};

} // namespace kesa::sim

#endif
