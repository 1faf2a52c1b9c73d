#ifndef KESA_EASE_PROPERTY_H
#define KESA_EASE_PROPERTY_H

#include <kesa/ease/ChangeLock.h>
#include <kesa/ease/Followers.h>
#include <kesa/ease/InTurn.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

namespace kesa {

/// A value that others may read, follow and, where that is wanted, set:
///
///     kesa::Property<int> volume(50, [](const int& value) { mixer.set(value); });
///     volume.serveWritable(*service, "/volume");
///
/// `T` is as for `Topic`, can be compared with `==`, and for `serveWritable` has a `deserialize`. Followers get the
/// present value and then each other one: setting what it is already tells nobody.
///
/// Any thread, but not from inside the handler of a follower in the same process: a change from there, as one from
/// inside `check`, is a failed assertion, and throws `std::logic_error` where that returns. It may die before the
/// service does: its routes answer 503 then, which is traced (3) once. Neither `onChange` nor `check` is called any
/// more once its destructor has returned, which waits for one that is running, unless it comes from inside `onChange`,
/// and traces (3) that it waits after a second.
template <class T>
class Property {
public:
    using OnChange = std::function<void(const T&)>;
    using Check = std::function<void(const T&)>;

    /// `onChange` hears of each change after it was made and followers were told, one call at a time and in order, in
    /// the thread that made it; or in another one that is telling it of a change already, and then `set` does not wait
    /// for it. Where 256 changes wait, `set` is slowed down off the I/O loop, by 100 ms, or by telling them: the last
    /// who comes tells all that is left. It runs without a lock: it may set this property or another, drop this one,
    /// and wait where its thread may, which for an "update" is the I/O loop. It refuses nothing: what it throws is
    /// traced (4) on "KESA_EASE", and the value stays. By the time it hears of a value, another may be set: two
    /// properties that mirror each other set `get()`, or two values that were set at once go round between them for
    /// ever.
    ///
    /// `check` refuses a value before the change, by an exception: a `RequestError` is what an "update" is answered
    /// then. Not for the first value, nor for one that is set already. It only looks: one call at a time, which each
    /// `set` waits for; `get` may be called inside.
    explicit Property(T value, OnChange onChange = {}, Check check = {})
        : m_state(std::make_shared<State>(std::move(value), std::move(onChange), std::move(check)))
    {}
    Property(const Property&) = delete;
    Property& operator=(const Property&) = delete;
    ~Property() { m_state->end(); }

    T get() const { return m_state->get(); }
    /// Throws what `check` does, and nothing has changed.
    void set(T value)
    {
        const auto state = m_state; // `onChange` may drop us
        state->set(std::move(value));
    }

    /// Adds a route that answers and streams it. Before the service is registered.
    void serve(ResourceHandler& service, std::string_view route, RouteInfo info = {})
    {
        const auto answer = [state = m_state](const Request& request, const Responder& responder) {
            state->followers.answer(request, responder);
        };
        service.onRetrieve(route, answer, info.stream());
    }
    /// The same with "update", which sets it: 400 when the body is no such value. What `info` says of the answer is
    /// said of that body, too.
    void serveWritable(ResourceHandler& service, std::string_view route, const RouteInfo& info = {})
    {
        serve(service, route, info);
        const auto set = [state = m_state](const Request& request) {
            if (state->set(body<T>(request))) {
                throw state->followers.ended(request);
            }
        };
        service.onUpdate(route, set, info.ofSetting());
    }

private:
    struct State {
        State(T first, OnChange handler, Check test)
            : value(std::make_shared<const T>(std::move(first))), onChange(std::move(handler)), check(std::move(test))
        {
            followers.publish(detail::encoder(value));
        }

        T get() const
        {
            const std::lock_guard<std::mutex> lock(mutex);
            return *value;
        }
        /// True when it has ended.
        bool set(T next)
        {
            {
                const std::lock_guard<detail::ChangeLock> order(changes);
                if (hasEnded || *value == next) {
                    return hasEnded;
                }
                if (check) {
                    check(next);
                }
                const auto changed = std::make_shared<const T>(std::move(next));
                std::shared_ptr<const T> before = replace(changed);
                try {
                    followers.publish(detail::encoder(changed));
                } catch (...) {
                    replace(std::move(before));
                    throw;
                }
                if (onChange) {
                    told.leave([this, changed] { onChange(*changed); });
                }
            }
            told.run();
            return false;
        }
        void end()
        {
            {
                const std::lock_guard<detail::ChangeLock> order(changes);
                hasEnded = true;
            }
            followers.end();
            told.end();
        }
        /// The one before.
        std::shared_ptr<const T> replace(std::shared_ptr<const T> other)
        {
            const std::lock_guard<std::mutex> lock(mutex);
            value.swap(other);
            return other;
        }

        detail::ChangeLock changes; ///< held while one is made
        bool hasEnded = false;      ///< under `changes`
        mutable std::mutex mutex;
        std::shared_ptr<const T> value; ///< written under both locks, so either will do for reading
        const OnChange onChange;
        const Check check;
        Followers followers;
        detail::InTurn told; ///< to `onChange`
    };

    const std::shared_ptr<State> m_state;
};

} // namespace kesa

#endif
