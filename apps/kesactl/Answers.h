#ifndef KESACTL_ANSWERS_H
#define KESACTL_ANSWERS_H

#include <comm/Clock.h>
#include <comm/Condition.h>
#include <kesa/IKesaApi.h>
#include <kesa/Response.h>

#include <deque>
#include <memory>
#include <mutex>
#include <optional>

namespace kesactl {

/// The answers to one request, for a thread that waits for them. Destroying it cancels the request.
class Answers {
public:
    enum class Kind { eVALUE, eERROR, eCOMPLETED, eTIMED_OUT, eINTERRUPTED };
    struct Answer {
        Kind kind;
        kesa::Response response; ///< of the first two
    };

    Answers(std::shared_ptr<kesa::IKesaApi> client, const kesa::Request& request);
    ~Answers();
    Answers(const Answers&) = delete;
    Answers& operator=(const Answers&) = delete;

    Answer next(comm::TimeNs deadline);
    /// `next` does not wait any more. Any thread.
    void interrupt();

private:
    struct State {
        std::mutex mutex; // between the backend's loop and the main thread, which waits
        comm::Condition changed;
        std::deque<Answer> answers; ///< with the mutex held, as the next one
        bool isInterrupted = false;
    };

    const std::shared_ptr<kesa::IKesaApi> m_client;
    const std::shared_ptr<State> m_state = std::make_shared<State>();
    void* m_request = nullptr;
};

} // namespace kesactl

#endif
