#ifndef KESA_COMMADAPTER_PROTOCOL_IMACHINELISTENER_H
#define KESA_COMMADAPTER_PROTOCOL_IMACHINELISTENER_H

#include "protocol/Hello.h"

#include <kesa/Request.h>
#include <kesa/Response.h>

#include <cstdint>
#include <string>

namespace kesa::commadapter::protocol {

/// What an `Input` reads out of the bytes, in the order they came. Called from `received` and `readOn`, on the loop.
/// Arguments are the receiver's. A callback may issue commands on the same machine, but neither feed nor destroy it.
class IMachineListener {
public:
    virtual ~IMachineListener() = default;
    virtual void onHello(const Hello& peer) = 0;

    enum class Room {
        eTHERE,
        eLATER, ///< nothing more is handled until `readOn`, which asks again
        eNONE,  ///< the peer breaks the protocol: `stream` is not what it would have to be
    };
    /// A message of `bytes` begins of which a part has come that is kept until it is whole: one of several frames, or a
    /// request of one frame with a body that is not small.
    virtual Room onLarge(std::uint32_t stream, std::size_t bytes) = 0;

    // Heard by the side that serves.
    virtual void onAttach(std::uint32_t target, std::string path) = 0;
    virtual void onDetach(std::uint32_t target) = 0; ///< the client is no longer interested
    /// `isPersistent`: it asks for a stream that lasts, else it is a call, with an answer or a few. `cost`: what it
    /// takes of the window of requests.
    virtual void onRequest(std::uint32_t stream, std::uint32_t target, Request request, bool isPersistent,
                           std::size_t cost) = 0;
    virtual void onCancel(std::uint32_t stream) = 0;
    /// The client has handled so much of the stream's values, see `Output::credit`.
    virtual void onCredit(std::uint32_t stream, std::uint32_t bytes) = 0;

    // Heard by the side that asks.
    /// The server has handled so much of the requests, see `Output::requestCredit`.
    virtual void onRequestCredit(std::uint32_t bytes) = 0;
    virtual void onAttached(std::uint32_t target) = 0;
    virtual void onDetached(std::uint32_t target) = 0;
    /// `bytes`: what it takes of the window of a persistent stream.
    virtual void onNext(std::uint32_t stream, Response response, std::size_t bytes) = 0;
    virtual void onError(std::uint32_t stream, Response error) = 0;
    virtual void onCompleted(std::uint32_t stream) = 0;
    /// The server is about to end the connection, and says why.
    virtual void onGoodbye(std::string reason) = 0;
};

} // namespace kesa::commadapter::protocol

#endif
