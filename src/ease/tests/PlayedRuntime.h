#ifndef KESA_EASE_TESTS_PLAYEDRUNTIME_H
#define KESA_EASE_TESTS_PLAYEDRUNTIME_H

#include <NotingHandler.h>
#include <PlayedService.h>
#include <kesa/runtime/v02/IKesaRuntime.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kesa::test {

using serviceregistry::Query;
using serviceregistry::ServiceDef;
using Api = std::shared_ptr<IKesaApi>;

/// Does what the test says a registry and the connections do, in any order, and writes down what it was asked.
class PlayedRuntime final : public runtime::v02::IKesaRuntime {
    template <class T>
    using Handler = std::unique_ptr<IResponseHandler<T>>;
    using Update = ResourceUpdate<ServiceDef>;
    template <class T>
    using Result = runtime::v02::ResolveResult<T>;

public:
    Disposable registerService(const std::string& path, Api, ServiceDef::TypeEnum, const GenericObject&,
                               Handler<ServiceDef>&& handler) override
    {
        log.push_back("register " + path);
        registrator = std::move(handler);
        std::exchange(whileRegistering, [] {})();
        return Disposable([this, path] { log.push_back("unregister " + path); });
    }
    Disposable registerService(const std::string& path, Api api, ServiceDef::TypeEnum type,
                               const std::vector<std::string>& versions, const GenericObject& metainfo,
                               Handler<ServiceDef>&& handler) override
    {
        registered = std::move(api);
        registrator = std::move(handler);
        log.push_back("register " + path + ' ' + *ServiceDef::enumToValue(type) + ' ' + versions.front() + ' ' +
                      util::config::Value(metainfo).toText());
        return Disposable([this, path] { log.push_back("unregister " + path); });
    }
    Disposable trackService(const std::string& path, Handler<Update>&& handler) override
    {
        log.push_back("track " + path);
        trackings.push_back(std::move(handler));
        if (registryAtOnce && path == "/registry") {
            added("ipc://kesa-registryd/registry");
            connected(registryAtOnce);
        }
        return Disposable([this] { log.push_back("untrack"); });
    }
    Disposable resolveService(const ServiceDef& record, Handler<optional<Api>>&& handler) override
    {
        const std::string locator = record.locators.front().toString();
        log.push_back("resolve " + locator);
        before = std::exchange(resolving, std::move(handler));
        return Disposable([this, locator] { log.push_back("release " + locator); });
    }
    Disposable resolveService(const url& locator, Handler<optional<Api>>&& handler) override
    {
        return resolveService(record(locator.toString()), std::move(handler));
    }
    Disposable trackAndResolveService(const std::string& path, Handler<optional<Result<Api>>>&& handler) override
    {
        log.push_back("track and resolve " + path);
        trackingAndResolving = std::move(handler);
        return Disposable([this] { log.push_back("untrack"); });
    }
    std::shared_ptr<const runtime::v02::IReasons> reasons() const override { return played; }

    static ServiceDef record(const std::string& locator)
    {
        ServiceDef made;
        made.locators = {url(locator)};
        return made;
    }
    void added(const std::string& locator) const
    {
        trackings.back()->onNext({ResourceUpdateType::eADDED, record(locator)});
    }
    void removed() const { trackings.back()->onNext({ResourceUpdateType::eREMOVED, record("ipc://p/p")}); }
    void connected(const Api& api) const { resolving->onNext(api); }
    void lost() const { resolving->onNext(optional<Api>()); }
    void end()
    {
        trackings.clear();
        resolving.reset();
    }
    Lines take() { return std::exchange(log, {}); }

    struct Reasons final : runtime::v02::IReasons {
        std::string whyUnknown(const std::string& path) const override { return "why " + path; }
        std::string whyUnknownWhenAsked(const std::string& path, bool hasAnswered) const override
        {
            return (hasAnswered ? "nobody at " : "no answer for ") + path;
        }
        std::string obstacle(const url& locator) const override
        {
            return locator == url("ipc://p/p") ? connection : "";
        }
        std::vector<std::shared_ptr<const comm::LoopHold>> holds() const override { return held; }
        void tellHeld(const std::vector<HeldLoop>& loops) const override { told.push_back(loops); }
        void tellTooSlow(const std::string& path, const std::string& loop) const override
        {
            tooSlow.push_back(path + ' ' + loop);
        }
        std::string connection;
        std::vector<std::shared_ptr<const comm::LoopHold>> held;
        mutable std::vector<std::vector<HeldLoop>> told;
        mutable Lines tooSlow; ///< "/service loop"
    };
    const std::shared_ptr<Reasons> played = std::make_shared<Reasons>();
    std::function<void()> whileRegistering = [] {}; ///< as another thread does it, once
    Api registryAtOnce;                             ///< connected inside the call that tracks it
    Lines log;
    Api registered;
    Handler<ServiceDef> registrator;
    Handler<optional<Result<Api>>> trackingAndResolving;
    std::vector<Handler<Update>> trackings;
    Handler<optional<Api>> resolving;
    Handler<optional<Api>> before; ///< of the resolving that has been released

private: // what no client needs
    Disposable trackService(const std::string&, bool, Handler<Update>&&) override { return {}; }
    Disposable trackServices(const Query&, Handler<Update>&&) override { return {}; }
    Disposable trackAndResolveServices(const Query&, Handler<Result<optional<Api>>>&&) override { return {}; }
    runtime::v02::KesaConfigAccessor getConfigAccessor() const override { return {}; }
};

} // namespace kesa::test

#endif
