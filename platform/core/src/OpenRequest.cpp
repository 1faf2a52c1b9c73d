#include <kesa/OpenRequest.h>

#include <algorithm>
#include <utility>

namespace kesa {

namespace {

using Handler = std::unique_ptr<IResponseHandler<Response>>;

class AnswerHandler final : public IResponseHandler<Response> {
public:
    explicit AnswerHandler(std::shared_ptr<OpenRequest> request) noexcept : m_request(std::move(request)) {}

    bool onNext(const Response& response) override { return m_request->onNext(response); }
    void onError(const Response& error) override { m_request->onError(error); }
    void onCompleted() override { m_request->onCompleted(); }

private:
    const std::shared_ptr<OpenRequest> m_request;
};

Response dropped()
{
    return Response::createErrorResponse(503, "the service dropped the request without an answer");
}
Response closed()
{
    return Response::createErrorResponse(503, "the service takes no more requests");
}

} // namespace

/// Numbers only count up, so appending keeps the entries in order, and most requests end soon after they were added.
/// An entry that ended stays with a null pointer until the end of the list or the next compaction reaches it.
struct OpenRequest::Table {
    struct Entry {
        std::uint64_t number;
        OpenRequest* request; ///< null when it has ended
    };

    std::vector<Entry>::iterator lookUp(std::uint64_t number)
    {
        const auto found = std::lower_bound(entries.begin(), entries.end(), number,
                                            [](const Entry& entry, std::uint64_t n) { return entry.number < n; });
        return found != entries.end() && found->number == number ? found : entries.end();
    }

    void erase(std::uint64_t number)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto found = lookUp(number);
        if (found == entries.end() || found->request == nullptr) {
            return;
        }
        found->request = nullptr;
        ++ended;
        while (!entries.empty() && entries.back().request == nullptr) {
            entries.pop_back();
            --ended;
        }
        if (ended > 16 && ended > entries.size() / 2) {
            entries.erase(std::remove_if(entries.begin(), entries.end(),
                                         [](const Entry& entry) { return entry.request == nullptr; }),
                          entries.end());
            ended = 0;
        }
    }

    std::mutex mutex; // of all below: requests are made in any thread, and end in that of their answer
    std::vector<Entry> entries;
    std::size_t ended = 0;
    std::uint64_t lastNumber = 0;
    bool isClosed = false;
};

OpenRequest::OpenRequest(std::shared_ptr<Table> table, std::uint64_t number, Handler&& handler) noexcept
    : m_handler(std::move(handler)), m_table(std::move(table)), m_number(number)
{}

OpenRequest::~OpenRequest()
{
    if (!m_hasEnded) {
        m_table->erase(m_number);
        m_handler->onError(dropped());
    }
}

bool OpenRequest::onNext(const Response& response)
{
    const auto self = shared_from_this(); // the call may let go of every other owner
    Handler done;
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_hasEnded) {
        return true;
    }
    ++m_calls;
    const bool notAccepted = m_handler->onNext(response);
    if (--m_calls == 0 && m_hasEnded) {
        done = std::move(m_handler); // ended inside the call; dies without the lock
        m_table->erase(m_number);
    }
    return notAccepted;
}

/// The first end wins; `call` tells the handler of it.
template <class Call>
bool OpenRequest::end(bool isWithdrawn, const Call& call)
{
    const auto self = shared_from_this();
    Handler done;
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    if (m_hasEnded) {
        return false;
    }
    m_hasEnded = true;
    if (isWithdrawn) {
        const std::lock_guard<std::mutex> lockWork(m_workMutex);
        m_isWithdrawn = true;
    }
    ++m_calls;
    call(*m_handler);
    if (--m_calls == 0) {
        done = std::move(m_handler);
        m_table->erase(m_number); // not before the calls: who cancels meanwhile has to find the request, and wait
    }
    return true;
}

void OpenRequest::onError(const Response& error)
{
    end(false, [&error](IResponseHandler<Response>& handler) { handler.onError(error); });
}

void OpenRequest::onCompleted()
{
    end(false, [](IResponseHandler<Response>& handler) { handler.onCompleted(); });
}

bool OpenRequest::withdraw()
{
    return end(true, [](IResponseHandler<Response>&) {});
}

bool OpenRequest::withdraw(const Response& error)
{
    return end(true, [&error](IResponseHandler<Response>& handler) { handler.onError(error); });
}

std::unique_ptr<IResponseHandler<Response>> OpenRequest::makeHandler()
{
    return std::make_unique<AnswerHandler>(shared_from_this());
}

bool OpenRequest::isOpen() const
{
    const std::lock_guard<std::recursive_mutex> lock(m_mutex);
    return !m_hasEnded;
}

void* OpenRequest::handle() const noexcept
{
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(m_number));
}

bool OpenRequest::setWork(Work work)
{
    const std::lock_guard<std::mutex> lock(m_workMutex);
    if (!m_isWithdrawn) {
        m_work = work;
    }
    return m_isWithdrawn;
}

OpenRequest::Work OpenRequest::work() const
{
    const std::lock_guard<std::mutex> lock(m_workMutex);
    return m_work;
}

OpenRequests::OpenRequests() : m_table(std::make_shared<OpenRequest::Table>()) {}

OpenRequests::~OpenRequests() = default;

std::shared_ptr<OpenRequest> OpenRequests::open(std::unique_ptr<IResponseHandler<Response>>&& handler)
{
    {
        const std::lock_guard<std::mutex> lock(m_table->mutex);
        if (!m_table->isClosed) {
            const std::uint64_t number = ++m_table->lastNumber;
            auto request = std::make_shared<OpenRequest>(m_table, number, std::move(handler));
            m_table->entries.push_back({number, request.get()});
            return request;
        }
    }
    handler->onError(closed());
    return nullptr;
}

std::shared_ptr<OpenRequest> OpenRequests::find(void* handle) const
{
    const std::lock_guard<std::mutex> lock(m_table->mutex);
    const auto found = m_table->lookUp(reinterpret_cast<std::uintptr_t>(handle));
    // Under the lock an entry's request is not yet destroyed, though its last owner may just have gone.
    return found == m_table->entries.end() || found->request == nullptr ? nullptr
                                                                        : found->request->weak_from_this().lock();
}

std::vector<std::shared_ptr<OpenRequest>> OpenRequests::close()
{
    std::vector<std::shared_ptr<OpenRequest>> open;
    const std::lock_guard<std::mutex> lock(m_table->mutex);
    m_table->isClosed = true;
    for (const auto& entry : m_table->entries) {
        if (auto request = entry.request == nullptr ? nullptr : entry.request->weak_from_this().lock()) {
            open.push_back(std::move(request));
        }
    }
    return open;
}

} // namespace kesa
