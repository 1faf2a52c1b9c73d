#ifndef KESA_RESPONSEHANDLERS_FUNCRESPONSEHANDLER_H
#define KESA_RESPONSEHANDLERS_FUNCRESPONSEHANDLER_H

#include <kesa/responsehandlers/CallableResponseHandler.h>

#include <functional>

namespace kesa::responsehandlers {

/// A handler made of three functions, none of them empty.
template <class T>
class FuncResponseHandler
    : public CallableResponseHandler<T, std::function<bool(const T&)>, std::function<void(const Response&)>,
                                     std::function<void()>> {
public:
    using FuncResponseHandler::CallableResponseHandler::CallableResponseHandler;
};

} // namespace kesa::responsehandlers

#endif
