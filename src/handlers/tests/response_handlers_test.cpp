// Each adapter records what it passes on; the termination rule is the same for all four.
#include <kesa/core/response_handlers.h>
#include <obr/ErrorStorage.h>

namespace {

using namespace kesa::responsehandlers;
using kesa::IResponseHandler;
using kesa::Response;
using Log = std::vector<std::string>;
using testing::ElementsAre;

constexpr int THROWN = 7;

/// Writes every call with its name into a log, and its own end.
class Recorder : public IResponseHandler<int> {
public:
    Recorder(Log& log, std::string name, bool refuses = false) : m_log(log), m_name(std::move(name)), m_refuses(refuses)
    {}
    ~Recorder() override { m_log.push_back("~" + m_name); }
    bool onNext(const int& value) override
    {
        m_log.push_back(m_name + std::to_string(value));
        return value == THROWN ? throw value : m_refuses;
    }
    void onError(const Response& error) override { m_log.push_back(m_name + Response::getErrorMessageWithCode(error)); }
    void onCompleted() override { m_log.push_back(m_name + "done"); }

private:
    Log& m_log;
    std::string m_name;
    bool m_refuses;
};

std::unique_ptr<IResponseHandler<int>> record(Log& log, const std::string& name, bool refuses = false)
{
    return std::make_unique<Recorder>(log, name, refuses);
}

std::vector<std::unique_ptr<IResponseHandler<int>>> oneOfEach(Log& log)
{
    std::vector<std::unique_ptr<IResponseHandler<int>>> all;
    all.push_back(std::make_unique<FuncResponseHandler<int>>(
        [&log](const int& value) {
            log.push_back("a" + std::to_string(value));
            return value == THROWN ? throw value : false;
        },
        [&log](const Response& error) { log.push_back("a" + Response::getErrorMessageWithCode(error)); },
        [&log] { log.push_back("adone"); }));
    all.push_back(
        std::make_unique<MappingResponseHandler<int, int>>(record(log, "a"), [](const int& value) { return value; }));
    all.push_back(std::make_unique<FilteringResponseHandler<int>>(record(log, "a"), [](const int&) { return true; }));
    all.push_back(std::make_unique<DoOnEachResponseHandler<int>>(
        std::make_unique<FilteringResponseHandler<int>>(record(log, "x"), [](const int&) { return false; }),
        record(log, "a")));
    return all;
}

TEST(ResponseHandlers, PassNothingOnAfterTheEnd)
{
    Log log;
    for (auto& handler : oneOfEach(log)) {
        log.clear();
        obr::ErrorStorage::ack();
        EXPECT_FALSE(handler->onNext(1));
        EXPECT_THROW(handler->onNext(THROWN), int) << "it reaches the loop, which names whom it has called";
        handler->onError(Response::createErrorResponse(503, "gone"));
        handler->onError(Response::createErrorResponse(404));
        handler->onCompleted();
        EXPECT_FALSE(obr::ErrorStorage::isError());
        EXPECT_TRUE(handler->onNext(2));
        EXPECT_EQ(obr::ErrorStorage::reason(), "Request already terminated");
        std::erase_if(log, [](const std::string& entry) { return entry[0] != 'a'; });
        EXPECT_THAT(log, ElementsAre("a1", "a7", "a503: gone"));
    }
    obr::ErrorStorage::ack();
}

TEST(ResponseHandlers, AcceptWhatTheHandlerBehindAccepts)
{
    Log log;
    MappingResponseHandler<std::string, int> mapping(record(log, "a"), [](const std::string& text) {
        return text.empty() ? std::nullopt : std::optional<int>(static_cast<int>(text.size()));
    });
    EXPECT_TRUE(mapping.onNext("")) << "it cannot be converted";
    EXPECT_FALSE(mapping.onNext("abc"));
    FilteringResponseHandler<int> filter(record(log, "b", true), [](const int& value) { return value > 1; });
    EXPECT_FALSE(filter.onNext(1)) << "what is dropped is accepted";
    EXPECT_TRUE(filter.onNext(2));
    EXPECT_THAT(log, ElementsAre("a3", "b2"));
}

TEST(DoOnEachResponseHandler, ObserverComesFirstAndMayHideValues)
{
    Log log;
    DoOnEachResponseHandler<int> both(record(log, "o"), record(log, "a"));
    both.onNext(1);
    both.onCompleted();
    EXPECT_THAT(std::exchange(log, {}), ElementsAre("o1", "a1", "odone", "adone"));
    {
        DoOnEachResponseHandler<int> hidden(record(log, "o", true), record(log, "a"));
        EXPECT_TRUE(hidden.onNext(1));
    }
    EXPECT_THAT(log, testing::UnorderedElementsAre("o1", "~o", "~a")) << "no end is made up";
}

} // namespace
