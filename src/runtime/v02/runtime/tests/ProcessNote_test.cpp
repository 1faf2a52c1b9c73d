// What a process says of itself without being asked, as others read it: here the reader looks at its own process.
#include "RuntimeFixture.h"

#include <runtime/v02/runtime/ProcessNote.h>
#include <runtime/v02/runtime/readProcessNote.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace kesa::runtime::v02::test {
namespace {

using testing::ElementsAre;
using HeldLoops = std::vector<IReasons::HeldLoop>;

Response refusalBecause(const std::string& text)
{
    return Response::createErrorResponse(409, text);
}

/// "/path: reason", of the process's own.
Lines refusedHere()
{
    Lines lines;
    const auto note = readProcessNote(::getpid());
    for (const auto& refusal : note ? note->refused : std::vector<ReadProcessNote::Refusal>()) {
        lines.push_back(refusal.path + ": " + refusal.reason);
    }
    return lines;
}

TEST(ProcessNote, saysWhoItIsWhatItWasRefusedAndWhatHoldsItUntilItsEnd)
{
    ProcessNote note("me\x1b\xff", "/run/\"a\"");
    const auto first = readProcessNote(::getpid());
    ASSERT_TRUE(first);
    EXPECT_EQ(first->process, "me\\u001b\xef\xbf\xbd");
    EXPECT_EQ(first->runDirectory, "/run/\"a\"");
    EXPECT_FALSE(first->isWatched);
    for (int i = 0; i < 20; ++i) {
        note.addRefusal("/a" + std::to_string(i % 19), refusalBecause(std::to_string(i)));
    }
    const Lines last = refusedHere();
    ASSERT_EQ(last.size(), 16U);
    EXPECT_EQ(last.front(), "/a4: 409: 4") << "the last ones are told";
    EXPECT_EQ(last.back(), "/a0: 409: 19") << "each path once";
    note.removeRefusal("/a0");
    note.removeRefusal("/never");
    EXPECT_EQ(refusedHere().size(), 15U);
    note.setHeld({{"executor", "the handler of '/a'", comm::now() - 5 * comm::SECOND}, {"updater", "it", -1}});
    const auto held = readProcessNote(::getpid());
    ASSERT_TRUE(held && held->isWatched && held->holds.size() == 2);
    EXPECT_EQ(held->holds[0].loop + held->holds[0].holder, "executorthe handler of '/a'");
    EXPECT_GE(held->holds[0].time, 5 * comm::SECOND);
    EXPECT_EQ(held->holds[1].time, 0) << "a time that cannot be";
    note.setHeld({});
    EXPECT_TRUE(readProcessNote(::getpid())->isWatched);
    for (int i = 0; i < 16; ++i) {
        note.addRefusal("/long" + std::to_string(i) + std::string(10'000, '\x01'),
                        refusalBecause(std::string(10'000, '\x01')));
    }
    EXPECT_FALSE(refusedHere().empty()) << "what does not fit is left out";
    note.end();
    note.addRefusal("/late", refusalBecause("late"));
    EXPECT_FALSE(readProcessNote(::getpid()));
}

TEST(ProcessNote, isNeverReadByHalves)
{
    ProcessNote note("me", "");
    note.setHeld({});
    std::atomic<bool> hasEnded{false};
    std::thread writer([&] {
        for (std::size_t count = 0; !hasEnded; count = (count + 7) % 100) {
            note.setHeld(HeldLoops(count, {"executor", std::to_string(count), 0}));
        }
    });
    for (int i = 0; i < 300; ++i) {
        const auto read = readProcessNote(::getpid());
        ASSERT_TRUE(read);
        for (const auto& hold : read->holds) {
            ASSERT_EQ(hold.holder, std::to_string(read->holds.size()));
        }
    }
    hasEnded = true;
    writer.join();
}

TEST(ProcessNote, isNotThatOfAChildWhichHasInheritedIt)
{
    const ProcessNote note("me", "");
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    const pid_t child = ::_Fork(); // without the handlers that would close it
    if (child == 0) {
        ::close(ends[1]);
        char end = 0;
        static_cast<void>(!::read(ends[0], &end, 1));
        ::_exit(0);
    }
    EXPECT_FALSE(readProcessNote(child));
    EXPECT_TRUE(readProcessNote(::getpid()));
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_EQ(::waitpid(child, nullptr, 0), child);
}

TEST(ProcessNote, needsNoFreeDescriptor)
{
    ProcessNote note("me", "");
    note.addRefusal("/a", refusalBecause("first"));
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int firstFree = ::dup(0);
    ::close(firstFree);
    const rlimit none{static_cast<rlim_t>(firstFree), limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    note.addRefusal("/b", refusalBecause("second"));
    note.addRefusal("/c", refusalBecause("third"));
    note.removeRefusal("/a");
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_THAT(refusedHere(), ElementsAre("/b: 409: second", "/c: 409: third"));
}

class NotedRuntime : public RuntimeFixture {};

TEST_F(NotedRuntime, forgetsARefusalWhenThePathIsRegistered)
{
    m_runtime = std::make_unique<KesaRuntimeImpl>(KesaConfig("me", R"({"use_local_registry": true, "services": [
            {"path": "/mine", "type": "pex", "locators": ["fake://me/mine"]}]})"),
                                                  std::make_unique<ProcessNote>("me", ""));
    ASSERT_FALSE(m_runtime->start());
    auto refused = registerService("/mine", "M", ServiceDef::TypeEnum::lomo);
    auto bad = registerService("no/path", "N");
    run();
    const Lines told = refusedHere();
    ASSERT_EQ(told.size(), 2U);
    EXPECT_THAT(told[0], testing::StartsWith("no/path: 400: "));
    EXPECT_THAT(told[1], testing::HasSubstr(R"(has it as "pex", and it is registered as "lomo")"));
    auto mine = registerService("/mine", "M");
    run();
    EXPECT_EQ(refusedHere().size(), 1U);
    m_runtime.reset();
    EXPECT_FALSE(readProcessNote(::getpid()));
    m_journal->take();
}

} // namespace
} // namespace kesa::runtime::v02::test
