#ifndef KESA_IRESPONSEHANDLER_H
#define KESA_IRESPONSEHANDLER_H

#include <obr/api.h>

namespace kesa {

class Response;

/// Receives a stream of values: any number of `onNext`, then at most one of `onError` and `onCompleted`. One thread
/// calls at a time. No operation may throw: an exception ends the process. After the destructor nothing is called.
template <class T>
class KESA_API IResponseHandler {
public:
    virtual ~IResponseHandler() = default;
    /// `value` is valid during the call. Returns true when the value was not accepted.
    virtual bool onNext(const T& value) = 0;
    virtual void onError(const Response& error) = 0;
    virtual void onCompleted() = 0;
};

} // namespace kesa

#endif
