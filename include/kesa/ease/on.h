#ifndef KESA_EASE_ON_H
#define KESA_EASE_ON_H

#include <comm/ActiveObject.h>
#include <kesa/FuncCallEvent.h>
#include <kesa/IKesaApi.h>
#include <kesa/IResponseHandler.h>
#include <kesa/Receipt.h>
#include <kesa/Response.h>
#include <kesa/ease/OwnLoop.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace kesa {

namespace detail {

/// Ends the process by what a handler of `on` has thrown; a trace names the loop before. Inside of the `catch` alone.
[[noreturn]] KESA_API void endThrownByHandler();
/// False after a failed assertion.
[[nodiscard]] KESA_API bool isHandlerGiven(bool isThere);

/// The error of a stream that was given up since it is taken too slowly, by whoever gives it up.
inline constexpr const char* TOO_SLOW = "too slow";

/// How many responses may wait on a loop for one handler. Any thread.
class KESA_API LoopRoom {
public:
    static constexpr std::size_t MOST_BYTES = std::size_t{4} * 1024 * 1024; ///< as for what waits in a provider
    static constexpr std::size_t OF_EACH = 256;                             ///< beside its payload

    explicit LoopRoom(std::string_view loop) : m_loop(loop) {}
    /// True when it is full. A single one is never too much.
    [[nodiscard]] bool take(const Response& response) noexcept;
    void give(const Response& response) noexcept;
    /// The last one did not find room.
    bool isFull() const noexcept { return m_isFull; }
    const std::string& loop() const noexcept { return m_loop; }
    /// 503, and how much waits.
    Response tooSlow() const;
    /// Who feeds it asks for the stream again: the handler hears nothing of an end.
    void askedAgain() noexcept { m_isAskedAgain = true; }
    bool isAskedAgain() const noexcept { return m_isAskedAgain; }
    /// It has dropped a response.
    void loopEnded() noexcept { m_hasLoopEnded = true; }
    bool hasLoopEnded() const noexcept { return m_hasLoopEnded; }

private:
    const std::string m_loop;
    std::atomic<std::size_t> m_bytes{0};
    std::atomic<bool> m_isFull{false};
    std::atomic<bool> m_isAskedAgain{false};
    std::atomic<bool> m_hasLoopEnded{false};
};

/// A response on its way to a loop. Its room is taken, and its receipt kept, until it has been handled, or was dropped,
/// since the loop has ended.
class WaitingResponse {
public:
    /// After `take`.
    WaitingResponse(std::shared_ptr<LoopRoom> room, const Response& response)
        : m_room(std::move(room)), m_response(response)
    {}
    WaitingResponse(WaitingResponse&&) noexcept = default;
    WaitingResponse& operator=(WaitingResponse&&) = delete;
    ~WaitingResponse()
    {
        if (m_room) {
            m_room->give(m_response);
            if (!m_isHandled) {
                m_room->loopEnded();
            }
        }
    }
    const Response& handled() noexcept
    {
        m_isHandled = true;
        return m_response;
    }

private:
    std::shared_ptr<LoopRoom> m_room;
    Response m_response;
    Receipt m_receipt = Receipt::take();
    bool m_isHandled = false;
};

/// How who feeds a handler of `on` finds its room.
struct KESA_API HasLoopRoom {
    HasLoopRoom() = default;
    HasLoopRoom(const HasLoopRoom&) = delete;
    HasLoopRoom& operator=(const HasLoopRoom&) = delete;
    virtual ~HasLoopRoom();
    std::shared_ptr<LoopRoom> room; ///< null: all wait
};

template <class T>
class LoopHandler final : public IResponseHandler<T>, public HasLoopRoom {
public:
    LoopHandler(const std::shared_ptr<comm::ActiveObject>& activeObject, std::unique_ptr<IResponseHandler<T>>&& handler)
        : m_activeObject(activeObject),
          m_shared(std::make_shared<Shared>(OwnLoop::of(activeObject), std::move(handler)))
    {
        if (std::is_same_v<T, Response> && activeObject) {
            room = std::make_shared<LoopRoom>(activeObject->name());
        }
    }
    ~LoopHandler() override
    {
        if (!m_hasEnded) {
            m_shared->isWithdrawn.store(true, std::memory_order_release);
        }
        send([shared = std::move(m_shared)] {}); // the handler dies where it was called
    }

    bool onNext(const T& value) override
    {
        if (m_hasEnded) {
            return true;
        }
        if constexpr (std::is_same_v<T, Response>) {
            return room == nullptr || onResponse(value);
        } else {
            return send([shared = m_shared, value, receipt = Receipt::take()] {
                shared->call([&](auto& handler) { handler.onNext(value); });
            });
        }
    }
    void onError(const Response& error) override
    {
        if (m_hasEnded) {
            return;
        }
        m_hasEnded = true;
        send([shared = m_shared, error] { shared->call([&](auto& handler) { handler.onError(error); }); });
    }
    void onCompleted() override
    {
        if (m_hasEnded) {
            return;
        }
        m_hasEnded = true;
        send([shared = m_shared] { shared->call([](auto& handler) { handler.onCompleted(); }); });
    }

private:
    struct Shared {
        Shared(std::shared_ptr<OwnLoop> l, std::unique_ptr<IResponseHandler<T>>&& h)
            : loop(std::move(l)), handler(std::move(h))
        {}
        template <class Call>
        void call(const Call& toHandler)
        {
            if (isWithdrawn.load(std::memory_order_acquire)) {
                return;
            }
            const auto describe = [] { return std::string("a handler given to kesa::on"); };
            const OwnLoop::Call<std::remove_const_t<decltype(describe)>> underWay(*loop, describe);
            try {
                toHandler(*handler);
            } catch (...) {
                endThrownByHandler();
            }
        }
        const std::shared_ptr<OwnLoop> loop;
        std::unique_ptr<IResponseHandler<T>> handler; ///< used on the loop only
        std::atomic<bool> isWithdrawn{false};
    };

    bool onResponse(const Response& value)
    {
        if (room->take(value)) {
            if (!room->isAskedAgain()) {
                onError(room->tooSlow());
            }
            return true;
        }
        const bool isGone = send([shared = m_shared, waiting = WaitingResponse(room, value)]() mutable {
            shared->call([&](auto& handler) { handler.onNext(waiting.handled()); });
        });
        if (isGone) {
            room->loopEnded();
        }
        return room->hasLoopEnded();
    }

    /// True when there is no loop any more.
    template <class F>
    bool send(F&& function)
    {
        const auto activeObject = m_activeObject.lock();
        if (activeObject) {
            post(*activeObject, std::forward<F>(function));
        }
        return !activeObject;
    }

    const std::weak_ptr<comm::ActiveObject> m_activeObject;
    std::shared_ptr<Shared> m_shared;
    bool m_hasEnded = false;
};

} // namespace detail

/// Moves a handler to the loop of `activeObject`, where it may block: it is called and destroyed there, in the order of
/// the stream. Values are copied. Every value counts as accepted while the loop lives and has room.
///
/// Of a persistent stream no more waits than its window has ("stream_window_bytes"): the rest waits at the provider,
/// whose policy decides when it is too much. Of responses that come otherwise 4 MiB may wait for the handler, each with
/// 256 bytes more than its payload; one more, and the stream is "too slow", as it would be for a handler that held the
/// I/O loop. What `Client::follow` asks for is cancelled and asked for again, see there. The handler of any other
/// request hears what waits and then 503, and nothing more: who made the request cancels it. Other values all wait.
///
/// When the handler that is returned is destroyed before the stream's end (the request was cancelled), no call begins
/// any more; one that is running on the loop goes on to its end. `activeObject` is held weakly: without it, or once it
/// has stopped, nothing is called, and what `Client::follow` asks for ends with the next value, which is traced (3). An
/// exception out of the handler ends the process; a trace (4) on "KESA_EASE" names the loop before. Null for a null
/// one, after a failed assertion.
template <class T>
[[nodiscard]] std::unique_ptr<IResponseHandler<T>> on(const std::shared_ptr<comm::ActiveObject>& activeObject,
                                                      std::unique_ptr<IResponseHandler<T>>&& handler)
{
    if (!detail::isHandlerGiven(handler != nullptr)) {
        return nullptr;
    }
    return std::make_unique<detail::LoopHandler<T>>(activeObject, std::move(handler));
}

/// Moves a service object to the loop of `activeObject`, where it may block: requests and cancels reach it there, in
/// order, and with the `RequestContext` and deadline they came with, but for its `stream`. It answers from any thread,
/// and after a cancel none of its answers reaches the client. `activeObject` is held weakly: without it, or once it has
/// stopped, requests are answered 503 "the loop given to kesa::on has ended", which is traced once (3) on "KESA_EASE".
/// An exception out of the service ends the process; a trace (4) there names the request before. Services that ask each
/// other with `kesa::get` need a loop each: one that waits serves nothing meanwhile.
[[nodiscard]] KESA_API std::shared_ptr<IKesaApi> on(const std::shared_ptr<comm::ActiveObject>& activeObject,
                                                    std::shared_ptr<IKesaApi> service);

} // namespace kesa

#endif
