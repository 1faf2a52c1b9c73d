#ifndef KESA_TESTS_SYSTEM_ACTOR_BURST_H
#define KESA_TESTS_SYSTEM_ACTOR_BURST_H

#include "actor/Streams.h"

#include <kesa/ease/handler.h>
#include <kesa/runtime/v02/IKesaRuntime.h>

#include <cstddef>
#include <future>
#include <istream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// Many services registered at once, as "/burst/0", "/burst/1" and so on.
class Burst {
public:
    Burst(kesa::runtime::v02::IKesaRuntime& runtime, std::shared_ptr<kesa::IKesaApi> api, kesa::actor::Say say)
        : m_runtime(runtime), m_api(std::move(api)), m_say(std::move(say))
    {}

    /// NAME COUNT AT [hold]
    void add(std::istream& words)
    {
        const auto progress = std::make_shared<Progress>();
        progress->say = m_say;
        std::string hold;
        words >> progress->name >> progress->count >> progress->at >> hold;
        progress->isHeld = !hold.empty();
        if (progress->isHeld) {
            m_held = progress;
        }
        for (std::size_t i = 0; i < progress->count; ++i) {
            registerOne(progress);
        }
        m_say("registered " + progress->name);
    }
    void release() { m_held->released.set_value(); }
    void dispose()
    {
        for (kesa::Disposable& registration : m_registrations) {
            registration.dispose();
        }
        m_registrations.clear();
    }

private:
    /// Of one command; what is not constant belongs to the executor.
    struct Progress {
        kesa::actor::Say say;
        std::string name;
        std::size_t count = 0;
        std::size_t at = 0;
        bool isHeld = false;
        std::size_t provided = 0;
        std::promise<void> released;

        void next()
        {
            ++provided;
            if (provided == at) {
                say("reached " + name);
                if (isHeld) {
                    released.get_future().wait();
                }
            }
            if (provided == count) {
                say("provided-all " + name);
            }
        }
    };

    void registerOne(const std::shared_ptr<Progress>& progress)
    {
        const std::string path = "/burst/" + std::to_string(m_registrations.size());
        m_registrations.push_back(m_runtime.registerService(
            path, m_api, kesa::serviceregistry::ServiceDef::TypeEnum::pex, {"1.0.0"}, kesa::GenericObject(),
            kesa::handler<kesa::serviceregistry::ServiceDef>(
                [progress, isFirst = true](const kesa::serviceregistry::ServiceDef&) mutable {
                    if (std::exchange(isFirst, false)) {
                        progress->next();
                    }
                },
                [this, path](const kesa::Response& error) {
                    m_say("refused " + path + ' ' + kesa::Response::getErrorMessageWithCode(error));
                })));
    }

    kesa::runtime::v02::IKesaRuntime& m_runtime;
    const std::shared_ptr<kesa::IKesaApi> m_api;
    const kesa::actor::Say m_say;
    std::vector<kesa::Disposable> m_registrations;
    std::shared_ptr<Progress> m_held;
};

#endif
