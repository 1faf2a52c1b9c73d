// Each adapter passes on to a handler that notes it; the termination rule is the same for all four.
#include <NotingHandler.h>
#include <kesa/core/response_handlers.h>
#include <obr/ErrorStorage.h>

namespace {

using namespace kesa::responsehandlers;
using kesa::Response;
using kesa::test::Lines;
using testing::ElementsAre;
using Handler = std::unique_ptr<kesa::IResponseHandler<int>>;

constexpr int THROWN = 7;

Handler note(Lines& log, const std::string& name, bool accepts = true)
{
    return std::make_unique<kesa::test::NotingHandler<int>>(
        log, [](const int& value) { return value == THROWN ? throw value : std::to_string(value); }, name, accepts);
}

std::vector<Handler> oneOfEach(Lines& log)
{
    const std::shared_ptr<kesa::IResponseHandler<int>> shared = note(log, "a");
    std::vector<Handler> all;
    all.push_back(std::make_unique<FuncResponseHandler<int>>(
        [shared](const int& value) { return shared->onNext(value); },
        [shared](const Response& error) { shared->onError(error); }, [shared] { shared->onCompleted(); }));
    all.push_back(
        std::make_unique<MappingResponseHandler<int, int>>(note(log, "a"), [](const int& value) { return value; }));
    all.push_back(std::make_unique<FilteringResponseHandler<int>>(note(log, "a"), [](const int&) { return true; }));
    all.push_back(std::make_unique<DoOnEachResponseHandler<int>>(
        std::make_unique<FuncResponseHandler<int>>([](const int&) { return false; }, [](const Response&) {}, [] {}),
        note(log, "a")));
    return all;
}

TEST(ResponseHandlers, PassNothingOnAfterTheEnd)
{
    Lines log;
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
        EXPECT_THAT(log, ElementsAre("a1", "a503: gone"));
    }
    obr::ErrorStorage::ack();
}

TEST(ResponseHandlers, AcceptWhatTheHandlerBehindAccepts)
{
    Lines log;
    MappingResponseHandler<std::string, int> mapping(note(log, "a"), [](const std::string& text) {
        return text.empty() ? std::nullopt : std::optional<int>(static_cast<int>(text.size()));
    });
    EXPECT_TRUE(mapping.onNext("")) << "it cannot be converted";
    EXPECT_FALSE(mapping.onNext("abc"));
    FilteringResponseHandler<int> filter(note(log, "b", false), [](const int& value) { return value > 1; });
    EXPECT_FALSE(filter.onNext(1)) << "what is dropped is accepted";
    EXPECT_TRUE(filter.onNext(2));
    DoOnEachResponseHandler<int> both(note(log, "o"), note(log, "a"));
    both.onNext(1);
    both.onCompleted();
    DoOnEachResponseHandler<int> hidden(note(log, "h", false), note(log, "a"));
    EXPECT_TRUE(hidden.onNext(1));
    EXPECT_THAT(log, ElementsAre("a3", "b2", "o1", "a1", "odone", "adone", "h1"));
}

} // namespace
