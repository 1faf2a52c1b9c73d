// Channels, thresholds and sinks. What the environment sets, and what sinks say of themselves
// and to the journal, is in the session trace_variables of kesactl.
#include <TemporaryFolder.h>
#include <obr/ErrorStorage.h>
#include <tracing/CapturingSink.h>
#include <tracing/Channel.h>
#include <tracing/LineLimit.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <pty.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace tracing {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

// The first test: what a threshold has been set for, and all others set "*", is not silenced any more.
TEST(TracingSilence, LastsUntilItsEndOrAThreshold)
{
    const Channel channel("T_SILENCE");
    const int before = channel.threshold();
    {
        const Silence outer("T_SILENCE");
        {
            const Silence inner("T_SILENCE");
        }
        EXPECT_EQ(channel.threshold(), 5);
    }
    EXPECT_EQ(channel.threshold(), before);
    const Silence silence("T_SILENCE");
    setThreshold("T_SILENCE", 2);
    EXPECT_EQ(channel.threshold(), 2);
}

/// Lets pass what is short.
class ShortLines final : public ILineLimit {
    bool pass(std::string_view text, std::string& changed) override
    {
        changed = text == "change" ? "changed" : "";
        return text.size() < 10;
    }
};

class Tracing : public testing::Test {
protected:
    void SetUp() override { setSink(m_captured); }
    void TearDown() override
    {
        setSink(nullptr);
        setEventLogSink(nullptr);
        setThreshold("*", 3);
    }

    const std::shared_ptr<CapturingSink> m_captured = std::make_shared<CapturingSink>();
};

TEST_F(Tracing, ALimitJudgesWarningsAndErrorsOfTheOwnChannelsOfItsThread)
{
    const Channel own("KESA_T_LIMIT", 0, 1);
    const Channel foreign("T_LIMIT");
    const std::string longText(100, 'l');
    ShortLines limit;
    {
        const ILineLimit::Scope scope(limit);
        own.log(4, longText);
        own.log(3, "change");
        own.log(2, "detail " + longText);
        foreign.log(4, "foreign " + longText);
        std::thread([&] { own.log(4, "thread " + longText); }).join();
    }
    own.log(4, "free " + longText);
    EXPECT_THAT(m_captured->take(), ElementsAre("KESA_T_LIMIT 3 changed", "KESA_T_LIMIT 2 detail " + longText,
                                                "T_LIMIT 4 foreign " + longText, "KESA_T_LIMIT 4 thread " + longText,
                                                "KESA_T_LIMIT 4 free " + longText));
}

TEST_F(Tracing, WritesFromItsThresholdOn)
{
    const Channel channel("T_LEVELS");
    const Channel same("T_LEVELS", 0, 1);
    EXPECT_EQ(same.threshold(), 3) << "channels of one name are one";
    channel.log(2, "not written");
    channel.logC(4, "100%s");
    channel.logCV(3, "%s", std::string(5000, 'c').c_str());
    int evaluated = 0;
    KESA_TRACE(channel, 2, "%d", ++evaluated);
    setThreshold("T_LEVELS", 2);
    KESA_TRACE(same, 2, "%d", ++evaluated);
    KESA_TRACE_TEXT(same, 1, std::to_string(++evaluated));
    EXPECT_THAT(m_captured->take(),
                ElementsAre("T_LEVELS 4 100%s", "T_LEVELS 3 " + std::string(5000, 'c'), "T_LEVELS 2 1"));
    EXPECT_EQ(evaluated, 1);
}

TEST_F(Tracing, ReadsThresholdLists)
{
    const Channel before("T_LIST_A");
    EXPECT_FALSE(setThresholds(" T_LIST_B=1, *=2 ,,T_LIST_C=5"));
    EXPECT_EQ(before.threshold(), 2);
    EXPECT_EQ(Channel("T_LIST_B").threshold(), 1);
    EXPECT_EQ(Channel("T_LIST_C").threshold(), 5);
    EXPECT_TRUE(setThresholds("T_LIST_A=9,T_LIST_B,T_LIST_C=3"));
    EXPECT_EQ(obr::ErrorStorage::reason(),
              "'T_LIST_A=9', 'T_LIST_B' is not CHANNEL=N with N from 1 (all) to 5 (nothing)");
    EXPECT_EQ(Channel("T_LIST_C").threshold(), 3);
    obr::ErrorStorage::ack();
}

TEST_F(Tracing, TheEventLogIsDeafWithoutASink)
{
    const Channel events("t_events", 7, 2);
    EXPECT_EQ(events.threshold(), 5);
    setThreshold("*", 1);
    EXPECT_EQ(events.threshold(), 5);
    const auto sink = std::make_shared<CapturingSink>();
    EXPECT_EQ(setEventLogSink(sink), nullptr);
    EXPECT_EQ(events.threshold(), 2);
    events.log(2, "{}");
    EXPECT_EQ(setEventLogSink(nullptr), sink);
    EXPECT_EQ(events.threshold(), 5);
    events.log(4, "dropped");
    EXPECT_THAT(sink->take(), ElementsAre("t_events 2 {}"));
    EXPECT_TRUE(m_captured->take().empty());
}

std::string contentOf(const std::string& file)
{
    std::ostringstream content;
    content << std::ifstream(file).rdbuf();
    return content.str();
}

TEST_F(Tracing, WritesFilesInWholeEscapedLines)
{
    const kesa::test::TemporaryFolder folder;
    const std::string file = folder / "trace";
    const auto sink = makeSink("file:" + file);
    ASSERT_NE(sink, nullptr);
    // Of the bytes 0x9b, one is the end of a letter; "\xe2\x80" is cut off; U+202E would turn what follows around.
    EXPECT_EQ(makeSink(std::string("file:/tmp\0x", 11)), nullptr);
    // What somebody else may have put there is not written to.
    std::ofstream(folder / "other's") << "kept";
    std::filesystem::create_hard_link(folder / "other's", folder / "hard");
    EXPECT_EQ(makeSink("file:" + (folder / "hard")), nullptr);
    std::filesystem::remove(folder / "hard");
    std::filesystem::create_symlink(folder / "other's", folder / "link");
    EXPECT_NE(makeSink("file:" + (folder / "link")), nullptr) << "of this user's own";
    if (::geteuid() == 0 && ::lchown((folder / "link").c_str(), 54321, 54321) == 0) {
        EXPECT_EQ(makeSink("file:" + (folder / "link")), nullptr);
    }
    EXPECT_EQ(contentOf(folder / "other's"), "kept");
    obr::ErrorStorage::ack();
    sink->write({"C\nH\x1b[0m", 4,
                 "peer says: x\n2026 forged\t\x1b[0m é \xc2\x9b[1m \x9b[2m ś \u20ac \u202eexe.\u2066 \xe2\x80"});
    sink->write({"kesa_DataModel", 2, "{\"event\":\"runtime\u202d\"}", 7});
    EXPECT_THAT(
        contentOf(file),
        MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\\.[0-9]{6}Z error   [0-9]+/[0-9]+ "
                     "\\[C\\\\u000aH\\\\u001b\\[0m\\] peer says: x\\\\u000a2026 forged\\\\u0009\\\\u001b\\[0m é "
                     "\\\\u009b\\[1m \uFFFD\\[2m ś \u20ac \\\\u202eexe.\\\\u2066 \uFFFD\uFFFD\n"
                     "\\{\"event\":\"runtime\\\\u202d\"\\}\n"));
}

void withStderr(int descriptor, const std::function<void()>& work)
{
    const int before = ::dup(STDERR_FILENO);
    ::dup2(descriptor, STDERR_FILENO);
    work();
    ::dup2(before, STDERR_FILENO);
    ::close(before);
}

std::string drained(int descriptor)
{
    ::fcntl(descriptor, F_SETFL, O_NONBLOCK);
    std::string result;
    char part[4096];
    for (ssize_t size = 0; (size = ::read(descriptor, part, sizeof part)) > 0;) {
        result.append(part, static_cast<std::size_t>(size));
    }
    return result;
}

/// How a child that traces `text`, if there is one, ends; by SIGALRM when it waits for ever.
int statusOfChild(const Channel& channel, const char* text)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(20);
        if (text != nullptr) {
            channel.logC(4, text);
        }
        // Not `_exit`, where ThreadSanitizer writes to stderr of the thread that is not there.
        ::syscall(SYS_exit_group, 0);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status;
}

// The other thread is in the middle of a line, which the pipe cannot take at once, when the process forks.
TEST_F(Tracing, AChildTracesThoughAnotherThreadDidSoAtTheFork)
{
    const Channel channel("T_FORK");
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    setSink(makeSink("stderr"));
    withStderr(pipe[1], [&] {
        std::thread other([&] { channel.log(4, std::string(1 << 20, 'x')); });
        char begun = 0;
        EXPECT_EQ(::read(pipe[0], &begun, 1), 1);
        EXPECT_EQ(statusOfChild(channel, "in the child"), 0);
        other.join();
        drained(pipe[0]);
        EXPECT_EQ(statusOfChild(channel, "in the child"), 0);
    });
    EXPECT_THAT(drained(pipe[0]), HasSubstr("[T_FORK] in the child\n"));
    ::close(pipe[0]);
    ::close(pipe[1]);
}

// Nothing of ours is locked then; the child writes nothing.
TEST_F(Tracing, ASinkMayFork)
{
    struct Forks : ISink {
        void write(const Line& /*line*/) override { status = statusOfChild(Channel("T_FORK"), nullptr); }
        int status = -1;
    };
    const auto sink = std::make_shared<Forks>();
    setSink(sink);
    Channel("T_FORK").logC(4, "forks");
    EXPECT_EQ(sink->status, 0);
}

/// Files of this process cannot grow, as on a full disk.
class NoRoom {
public:
    explicit NoRoom(rlim_t size)
    {
        ::getrlimit(RLIMIT_FSIZE, &m_before);
        const rlimit full{size, m_before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &full);
    }
    ~NoRoom()
    {
        ::setrlimit(RLIMIT_FSIZE, &m_before);
        ::signal(SIGXFSZ, m_handler);
    }
    NoRoom(const NoRoom&) = delete;
    NoRoom& operator=(const NoRoom&) = delete;

private:
    rlimit m_before{};
    const sighandler_t m_handler = ::signal(SIGXFSZ, SIG_IGN);
};

// stderr is the one place left where that can be read; the second line is cut off.
TEST_F(Tracing, SaysOnceThatAFileCannotBeWrittenAndThenWhatWasLost)
{
    const kesa::test::TemporaryFolder folder;
    const std::string file = folder / "full";
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    const auto sink = makeSink("file:" + file);
    ASSERT_NE(sink, nullptr);
    const auto write = [&](const char* text) { sink->write({"kesa_DataModel", 2, text, 7}); };
    withStderr(pipe[1], [&] {
        const NoRoom full(6);
        for (const char* const text : {"{1}", "{2}", "{3}"}) {
            write(text);
        }
    });
    const auto once = testing::AllOf(HasSubstr("[KESA_TRACING] cannot write to '" + file + "': File too large; "),
                                     testing::Not(testing::ContainsRegex("\n.")));
    EXPECT_THAT(drained(pipe[0]), once);
    write("{4}");
    withStderr(pipe[1], [&] {
        const NoRoom full(6);
        write("{5}");
    });
    EXPECT_THAT(drained(pipe[0]), once) << "another time, another line";
    EXPECT_EQ(contentOf(file), "{1}\n{2\nkesa: 2 lines lost, they could not be written\n{4}\n");
    ::close(pipe[0]);
    ::close(pipe[1]);
}

// A reader that stopped must not stop us, one that died must not kill us, and what was lost is said.
TEST_F(Tracing, SurvivesReadersThatStopOrDie)
{
    int pipe[2];
    int sockets[2];
    int terminal[2];
    termios raw{};
    ::cfmakeraw(&raw);
    ASSERT_EQ(::pipe(pipe), 0);
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
    ASSERT_EQ(::openpty(terminal, terminal + 1, nullptr, &raw, nullptr), 0);
    for (int* const ends : {pipe, sockets, terminal}) {
        auto sink = makeSink("stderr");
        const auto write = [&](const std::string& text, int times = 1) {
            withStderr(ends[1], [&] {
                for (int i = 0; i < times; ++i) {
                    sink->write({"CH", 3, text});
                }
            });
        };
        const std::string text(20'000, 'x');
        write(text, 100);
        EXPECT_THAT(drained(ends[0]), HasSubstr(text.substr(0, 1000)));
        write("again");
        EXPECT_THAT(drained(ends[0]), testing::ContainsRegex("kesa: [0-9]+ lines lost, .*\n.*again\n$"));
        write(text, 100);
        withStderr(ends[1], [&] { sink->flush(); });
        EXPECT_THAT(drained(ends[0]), testing::Not(HasSubstr("lost")));
        withStderr(ends[1], [&] { sink->flush(); });
        EXPECT_THAT(drained(ends[0]), testing::ContainsRegex("^\n?kesa: [0-9]+ lines lost, .*\n$"));
        ::close(ends[0]);
        write("nobody reads this");
        sigset_t pending;
        ::sigpending(&pending);
        EXPECT_FALSE(::sigismember(&pending, SIGPIPE));
        withStderr(ends[1], [&] { sink.reset(); });
        ::close(ends[1]);
    }
}

} // namespace
} // namespace tracing
