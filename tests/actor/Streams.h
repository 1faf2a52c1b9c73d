#ifndef KESA_TESTS_ACTOR_STREAMS_H
#define KESA_TESTS_ACTOR_STREAMS_H

#include <kesa/IResponseHandler.h>
#include <kesa/Response.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace kesa::actor {

/// Tells one event of the actor. Any thread.
using Say = std::function<void(const std::string&)>;

/// Makes the handlers of an actor, counts them, and says "broken NAME ..." when one is called twice at a time or after
/// its end.
class Streams {
public:
    explicit Streams(Say say) : m_state(std::make_shared<State>(std::move(say))) {}

    template <class T>
    std::unique_ptr<IResponseHandler<T>> make(const std::string& name, std::function<void(const T&)> next,
                                              std::function<void(const Response&)> failed,
                                              std::function<void()> completed = {}) const
    {
        return std::make_unique<Stream<T>>(m_state, name, std::move(next), std::move(failed), std::move(completed));
    }
    /// Handlers that nobody has destroyed yet.
    int living() const { return m_state->living; }

private:
    struct State {
        explicit State(Say toSay) : say(std::move(toSay)) {}
        const Say say;
        std::atomic<int> living{0};
    };

    template <class T>
    class Stream final : public IResponseHandler<T> {
    public:
        Stream(std::shared_ptr<State> state, std::string name, std::function<void(const T&)> next,
               std::function<void(const Response&)> failed, std::function<void()> completed)
            : m_state(std::move(state)), m_name(std::move(name)), m_next(std::move(next)), m_failed(std::move(failed)),
              m_completed(std::move(completed))
        {
            ++m_state->living;
        }
        ~Stream() override { --m_state->living; }

        bool onNext(const T& value) override
        {
            enter([&] { m_next(value); });
            return false;
        }
        void onError(const Response& error) override
        {
            enter([&] {
                m_isOver = true;
                m_failed(error);
            });
        }
        void onCompleted() override
        {
            enter([this] {
                m_isOver = true;
                m_completed ? m_completed() : static_cast<void>(0);
            });
        }

    private:
        template <class Work>
        void enter(const Work& work)
        {
            if (m_isOver) {
                m_state->say("broken " + m_name + " is called after its end");
            }
            if (++m_calls != 1) {
                m_state->say("broken " + m_name + " is called twice at a time");
            }
            work();
            --m_calls;
        }

        const std::shared_ptr<State> m_state;
        const std::string m_name;
        const std::function<void(const T&)> m_next;
        const std::function<void(const Response&)> m_failed;
        const std::function<void()> m_completed;
        std::atomic<bool> m_isOver{false};
        std::atomic<int> m_calls{0};
    };

    const std::shared_ptr<State> m_state;
};

} // namespace kesa::actor

#endif
