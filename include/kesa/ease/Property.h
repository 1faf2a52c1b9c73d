#ifndef KESA_EASE_PROPERTY_H
#define KESA_EASE_PROPERTY_H

#include <kesa/ease/Followers.h>

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
/// Any thread, but not from inside the handler of a follower in the same process. It may die before the service does:
/// its routes answer 503 then, which is traced (3) once. `onChange` is called no more once its destructor has returned,
/// which waits for one that is running, unless it comes from inside it.
template <class T>
class Property {
public:
    using OnChange = std::function<void(const T&)>;

    /// `onChange` is called after each change, in the thread that made it, one call at a time and in order. It may set
    /// this property, which calls it again before that returns, and drop it.
    explicit Property(T value, OnChange onChange = {})
        : m_state(std::make_shared<State>(std::move(value), std::move(onChange)))
    {}
    Property(const Property&) = delete;
    Property& operator=(const Property&) = delete;
    ~Property() { m_state->end(); }

    T get() const { return m_state->get(); }
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
        State(T first, OnChange handler)
            : value(std::make_shared<const T>(std::move(first))), onChange(std::move(handler))
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
            const std::lock_guard<std::recursive_mutex> order(changes);
            std::shared_ptr<const T> changed;
            {
                const std::lock_guard<std::mutex> lock(mutex);
                if (hasEnded || *value == next) {
                    return hasEnded;
                }
                changed = std::make_shared<const T>(std::move(next));
                value = changed;
            }
            followers.publish(detail::encoder(changed));
            if (onChange) {
                onChange(*changed);
            }
            return false;
        }
        void end()
        {
            const std::lock_guard<std::recursive_mutex> order(changes); // waits for `onChange`, but from inside it
            {
                const std::lock_guard<std::mutex> lock(mutex);
                hasEnded = true;
            }
            followers.end();
        }

        std::recursive_mutex changes; ///< held while one is told
        mutable std::mutex mutex;     ///< of `value` and `hasEnded`
        std::shared_ptr<const T> value;
        bool hasEnded = false;
        const OnChange onChange;
        Followers followers;
    };

    const std::shared_ptr<State> m_state;
};

} // namespace kesa

#endif
