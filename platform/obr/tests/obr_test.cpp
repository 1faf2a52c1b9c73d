#include <obr/ErrorOutput.h>
#include <obr/ErrorStorage.h>
#include <obr/GlobalErrorHandler.h>
#include <obr/Random.h>
#include <obr/UUID.h>
#include <obr/errors.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <future>
#include <set>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace obr {
namespace {

/// Uses the error store when all of the main thread's own objects are gone already.
struct RecordsAtExit {
    ~RecordsAtExit()
    {
        ErrorOutput(__FILE__, __LINE__)(errors::Error, errors::TEXT, "late");
        if (ErrorStorage::reason() != "late") {
            ::_exit(99);
        }
    }
} g_recordsAtExit;

constexpr ErrorType JOINED("joined", [](int number, const std::string_view* arguments, std::size_t count) {
    std::string result = std::to_string(number);
    std::for_each(arguments, arguments + count, [&](std::string_view each) { result += "," + std::string(each); });
    return result;
});

TEST(ErrorStorage, theLastErrorWins)
{
    EXPECT_FALSE(ErrorStorage::isError());
    EXPECT_EQ(ErrorStorage::reason(), "");
    EXPECT_TRUE(ErrorOutput(__FILE__, __LINE__, true)(JOINED, 7, std::string("a"), "b", std::string_view("c")));
    EXPECT_EQ(ErrorStorage::reason(), "7,a,b,c");
    EXPECT_TRUE(ErrorOutput(__FILE__, __LINE__, true)(errors::Error, errors::TEXT, ""));
    EXPECT_TRUE(ErrorStorage::isError());
    EXPECT_EQ(ErrorStorage::reason(), "");
    EXPECT_TRUE(ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 99));
    EXPECT_EQ(ErrorStorage::takeReason(), "error 99 of obr");
    EXPECT_TRUE(ErrorOutput(__FILE__, __LINE__, false)(JOINED, 8));
    EXPECT_FALSE(ErrorStorage::isError());
}

TEST(ErrorStorage, eachThreadAndEachExchangedLoopHasItsOwn)
{
    ErrorOutput(__FILE__, __LINE__)(JOINED, 1);
    EXPECT_FALSE(std::async(std::launch::async, [] {
                     const bool before = ErrorStorage::isError();
                     ErrorOutput(__FILE__, __LINE__)(JOINED, 2);
                     return before;
                 }).get());
    ErrorStorage::Slot loop;
    ErrorStorage::exchange(loop);
    EXPECT_FALSE(ErrorStorage::isError());
    ErrorOutput(__FILE__, __LINE__)(JOINED, 3);
    ErrorStorage::exchange(loop);
    EXPECT_EQ(ErrorStorage::reason(), "1");
    EXPECT_EQ(loop.reason, "3");
    ErrorStorage::ack();
}

TEST(GlobalErrorHandlerDeathTest, theDefaultWritesOneLineFlushesAndAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            GlobalErrorHandler::atFatal([] { [[maybe_unused]] const auto n = ::write(STDERR_FILENO, "flushed\n", 8); });
            GlobalErrorHandler::doAssert(false, "a!=b", "f.cpp", 12, "f", "what");
        },
        testing::KilledBySignal(SIGABRT), "kesa: assertion 'a!=b' failed in f \\(f.cpp:12\\): what\nflushed\n");
}

TEST(UUID, textAndBytes)
{
    const std::string text = "01234567-89ab-cdef-0123-456789abcdef";
    const std::optional<UUID> id = UUID::fromString("01234567-89AB-CDEF-0123-456789abcdef");
    ASSERT_TRUE(id);
    EXPECT_EQ(id->toString(), text);
    EXPECT_GT(id->compare(UUID()), 0);
    for (const std::string_view bad : {std::string_view(), std::string_view(text).substr(1),
                                       std::string_view("0123456789-ab-cdef-0123-456789abcdef"),
                                       std::string_view("g1234567-89ab-cdef-0123-456789abcdef"),
                                       std::string_view("01234567-89ab-cdef-0123-456789abcdef "),
                                       std::string_view("01234567-89ab-cdef-0123-456789abcde\0", 36)}) {
        EXPECT_FALSE(UUID::fromString(bad)) << bad;
    }
}

TEST(UUID, generatedOnesComeFromTheSourceAndAreMarkedRandom)
{
    struct : Random {
        std::uint64_t next() override { return last += 0x9e3779b97f4a7c15; }
        std::uint64_t last = 0;
    } counting;
    ASSERT_EQ(Random::install(&counting), nullptr);
    const UUID first = UUID::generate();
    EXPECT_NE(UUID::generate(), first);
    counting.last = 0;
    EXPECT_EQ(UUID::generate(), first);
    EXPECT_EQ(Random::install(nullptr), &counting);
    EXPECT_EQ(first.toString()[14], '4');
    EXPECT_NE(std::string("89ab").find(first.toString()[19]), std::string::npos);
}

TEST(Random, neitherThreadsNorForksRepeatNumbers)
{
    const auto draw = [] {
        std::vector<std::uint64_t> numbers(40);
        std::generate(numbers.begin(), numbers.end(), [] { return Random::current().next(); });
        return numbers;
    };
    Random::current().next(); // some are drawn ahead now
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const auto numbers = draw();
        ::_exit(::write(pipe[1], numbers.data(), sizeof(std::uint64_t) * numbers.size()) < 0);
    }
    std::vector<std::uint64_t> all(40);
    ASSERT_EQ(::read(pipe[0], all.data(), sizeof(std::uint64_t) * 40), ssize_t{sizeof(std::uint64_t) * 40});
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    ::close(pipe[0]);
    ::close(pipe[1]);
    for (const auto& numbers : {draw(), std::async(std::launch::async, draw).get()}) {
        all.insert(all.end(), numbers.begin(), numbers.end());
    }
    EXPECT_EQ(std::set(all.begin(), all.end()).size(), 120U);
}

} // namespace
} // namespace obr
