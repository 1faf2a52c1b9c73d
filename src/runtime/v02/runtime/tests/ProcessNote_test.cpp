// What a process says of itself without being asked, as others read it: here the reader looks at its own process.
#include "RuntimeFixture.h"

#include <runtime/v02/runtime/ProcessNote.h>
#include <runtime/v02/runtime/readProcessNote.h>

#include <sys/mman.h>
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
    EXPECT_EQ(first->runDirectoryId, "") << "it is not there";
    EXPECT_FALSE(first->isWatched);
    for (int i = 0; i < 20; ++i) {
        note.addRefusal("/a" + std::to_string(i % 19), refusalBecause(std::to_string(i)));
    }
    const Lines last = refusedHere();
    ASSERT_EQ(last.size(), 16U);
    EXPECT_EQ(last.front(), "/a4: 409: 4") << "the last ones are told";
    EXPECT_EQ(last.back(), "/a0: 409: 19") << "each path once";
    note.setRegistered("/a0");
    note.setRegistered("/never");
    EXPECT_EQ(refusedHere().size(), 15U);
    note.setHeld({{"executor", "the handler of '/a'", comm::now() - 5 * comm::SECOND}, {"updater", "it", -1}});
    const auto held = readProcessNote(::getpid());
    ASSERT_TRUE(held && held->isWatched && held->holds.size() == 2);
    EXPECT_EQ(held->holds[0].loop + held->holds[0].holder, "executorthe handler of '/a'");
    EXPECT_GE(held->holds[0].time, 5 * comm::SECOND);
    EXPECT_EQ(held->holds[1].time, 0) << "a time that cannot be";
    note.setHeld({{"mine.disk", "the request 'retrieve /a'", 1, 2U}});
    const auto own = readProcessNote(::getpid());
    ASSERT_TRUE(own && own->isWatched && own->holds.empty() && own->ownHolds.size() == 1);
    EXPECT_EQ(own->ownHolds.front().loop, "mine.disk");
    EXPECT_EQ(own->ownHolds.front().waiting, 2U);
    note.setHeld({});
    EXPECT_TRUE(readProcessNote(::getpid())->isWatched);
    note.addDropped("/d");
    note.addDropped("/e");
    note.setRegistered("/d");
    note.addTooSlow("/s", "mine.disk");
    note.addTooSlow("/s", "mine.disk"); // within the second
    note.addDropped("/f");
    const auto more = readProcessNote(::getpid());
    ASSERT_TRUE(more && more->dropped.size() == 2 && more->tooSlow.size() == 1);
    EXPECT_EQ(more->dropped.front().path + more->dropped.back().path, "/e/f");
    EXPECT_GT(more->dropped.front().when, 0);
    EXPECT_EQ(more->tooSlow.front().path + more->tooSlow.front().loop, "/smine.disk");
    EXPECT_EQ(more->tooSlow.front().times, 2U);
    for (int i = 0; i < 16; ++i) {
        note.addRefusal("/long" + std::to_string(i) + std::string(10'000, '\x01'),
                        refusalBecause(std::string(10'000, '\x01')));
    }
    EXPECT_FALSE(refusedHere().empty()) << "what does not fit is left out";
    note.end();
    note.addRefusal("/late", refusalBecause("late"));
    EXPECT_FALSE(readProcessNote(::getpid()));
}

/// Is kept open, as the process itself keeps its note.
int writeFile(const std::string& text)
{
    const int file = ::memfd_create(ProcessNote::FILE_NAME, MFD_CLOEXEC);
    EXPECT_EQ(::write(file, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    return file;
}

TEST(ProcessNote, isReadWithinLimitsWhoeverWroteIt)
{
    const std::string pid = std::to_string(::getpid());
    std::string letters(1023, 'a');
    letters += "\u00e4\u00e4"; // the limit is inside of the first
    std::string refused;
    std::string holds;
    for (int i = 0; i < 20; ++i) {
        refused +=
            (i == 0 ? R"({"path":"/)" : R"(,{"path":"/)") + std::to_string(i) + R"(","reason":")" + letters + "\"}";
        holds += (i == 0 ? R"({"loop":"\u001b)" : R"(,{"loop":"\u001b)") + std::to_string(i) + R"(","holder":"it"})";
    }
    std::vector<int> files{
        writeFile(R"({"process":"me","pid":)" + pid + R"(,"refused":[)" + refused + R"(],"holds":[)" + holds + "]}")};
    const auto note = readProcessNote(::getpid());
    ASSERT_TRUE(note && note->refused.size() == 16 && note->holds.size() == 8);
    EXPECT_EQ(note->refused.front().path, "/4") << "the last ones count";
    EXPECT_EQ(note->refused.front().reason, letters.substr(0, 1023));
    EXPECT_EQ(note->holds.front().loop, "\\u001b0") << "for a terminal";
    EXPECT_FALSE(readProcessNote(::getpid(), 0)) << "the deadline has passed";

    ::close(files.front());
    files = {writeFile("?")};
    for (int i = 0; i < 20; ++i) {
        files.push_back(::dup(files.front())); // which is no further file
    }
    files.push_back(writeFile(R"({"process":"me","pid":)" + pid + "}"));
    EXPECT_TRUE(readProcessNote(::getpid()));
    ::dup2(files.back(), files.front());
    for (std::size_t i = 0; i + 1 < files.size(); ++i) {
        ::close(files[i]);
        files[i] = writeFile("?");
    }
    EXPECT_FALSE(readProcessNote(::getpid())) << "it stands behind too many";
    for (const int file : files) {
        ::close(file);
    }
}

TEST(ProcessNote, isNeverReadByHalves)
{
    ProcessNote note("me", "");
    note.setHeld({});
    std::atomic<bool> hasEnded{false};
    std::thread writer([&] {
        for (std::size_t count = 0; !hasEnded; count = (count + 7) % 9) {
            note.setHeld(HeldLoops(count, {std::string(count * 100, 'x'), std::to_string(count), 0}));
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
    const ProcessNote note("me", "/");
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
    const auto own = readProcessNote(::getpid());
    EXPECT_TRUE(own && own->runDirectoryId == ProcessNote::directoryId("/") && !own->runDirectoryId.empty());
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
    note.setRegistered("/a");
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
