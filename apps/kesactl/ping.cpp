// ping: how long a request takes to a service and back. It does nothing there: whatever the service says of it is an
// answer.
#include "Answers.h"
#include "Failure.h"
#include "ServiceConnection.h"
#include "commands.h"
#include "explainUnreachable.h"
#include "options.h"
#include "output.h"
#include "peerText.h"
#include "probe.h"

#include <CLI/CLI.hpp>
#include <kesa/headers.h>
#include <obr/visible.h>

#include <fmt/format.h>

#include <algorithm>

namespace kesactl {

using obr::visible;
namespace {

struct PingArguments {
    std::string path;
    std::uint64_t count = 5;
    double intervalSeconds = 0.2;
    CommonOptions common;
};

/// What came of one request.
struct Round {
    comm::TimeNs time = 0;
    std::string problem; ///< empty: it was answered
    ExitCode exitCode = ExitCode::eOK;
    std::string unusual{}; ///< the answer, when it is not what a service says to an unknown command
    int status = 0;        ///< of that answer
};

/// What the loop waits in, so that the end of its reader ends each wait.
class Waits {
public:
    Answers::Answer next(Answers& answers, comm::TimeNs deadline)
    {
        setCurrent(&answers);
        Answers::Answer answer = answers.next(deadline);
        setCurrent(nullptr);
        return answer;
    }
    void pauseUntil(comm::TimeNs time)
    {
        std::unique_lock lock(m_mutex);
        if (comm::waitFor(
                m_changed, lock, [this] { return m_isInterrupted; }, time)) {
            ReaderWatch::fail();
        }
    }
    void interrupt()
    {
        const std::lock_guard lock(m_mutex);
        m_isInterrupted = true;
        m_changed.notifyAll();
        if (m_answers != nullptr) {
            m_answers->interrupt();
        }
    }

private:
    void setCurrent(Answers* answers)
    {
        const std::lock_guard lock(m_mutex);
        m_answers = answers;
        if (m_isInterrupted) {
            ReaderWatch::fail();
        }
    }

    std::mutex m_mutex; ///< between the main thread and the one that sees the reader go
    comm::Condition m_changed;
    Answers* m_answers = nullptr; ///< with the mutex held, as the next one
    bool m_isInterrupted = false;
};

/// A 503 is of the service when it still answers where it is; else of the connection that has gone.
bool isAnswered(const ServiceDef& service, comm::TimeNs deadline)
{
    const comm::TimeNs within = std::max<comm::TimeNs>(deadline - comm::now(), 0);
    return !service.locators.empty() && explainUnreachable(service.locators.front(), within).cause == "slow";
}

Round measure(const ServiceConnection::Client& client, const ServiceDef& service, const PingArguments& arguments,
              Waits& waits)
{
    kesa::Request request = probeOf(service);
    const comm::TimeNs begin = comm::now();
    const comm::TimeNs deadline = begin + arguments.common.timeout();
    kesa::headers::appendTimeout(request, std::chrono::nanoseconds(deadline - begin));
    Answers answers(client, request);
    const Answers::Answer answer = waits.next(answers, deadline);
    const comm::TimeNs time = comm::now() - begin;
    const int status = answer.kind == Answers::Kind::eERROR ? static_cast<int>(answer.response.getStatus()) : 0;
    if (answer.kind == Answers::Kind::eTIMED_OUT || (status == 504 && begin + time >= deadline)) {
        return {time, fmt::format("no answer within {} s", arguments.common.timeoutSeconds), ExitCode::eTIMED_OUT};
    }
    if (status < 500) {
        return {time, {}};
    }
    const std::string reason = saidBy(answer.response);
    if (status == 503 && !isAnswered(service, deadline)) {
        return {time, reason, ExitCode::eFAILED};
    }
    return {time, {}, ExitCode::eOK, reason, status};
}

double milliseconds(comm::TimeNs time)
{
    return static_cast<double>(time) / 1e6;
}

std::string lineOf(std::uint64_t number, const Round& round, bool isJson)
{
    if (!isJson) {
        const std::string time = fmt::format("{:.3f} ms", milliseconds(round.time));
        return fmt::format("{}: {}\n", number,
                           !round.problem.empty()   ? visible(round.problem)
                           : !round.unusual.empty() ? fmt::format("{}, answered {}", time, visible(round.unusual))
                                                    : time);
    }
    const std::string unusual =
        round.unusual.empty() ? ""
                              : fmt::format(R"(,"status":{},"answered":{})", round.status, asJsonString(round.unusual));
    return fmt::format("{{\"number\":{},{}}}\n", number,
                       round.problem.empty() ? fmt::format(R"("ms":{:.3f}{})", milliseconds(round.time), unusual)
                                             : fmt::format(R"("error":{})", asJsonString(round.problem)));
}

std::string summaryOf(std::uint64_t sent, std::vector<comm::TimeNs> times, bool isJson)
{
    std::sort(times.begin(), times.end());
    const double least = milliseconds(times.front());
    const double median = milliseconds(times[times.size() / 2]);
    const double most = milliseconds(times.back());
    if (isJson) {
        return fmt::format(R"({{"sent":{},"answered":{},"least":{:.3f},"median":{:.3f},"most":{:.3f}}})"
                           "\n",
                           sent, times.size(), least, median, most);
    }
    return fmt::format("{} of {} answered: least {:.3f} ms, median {:.3f} ms, most {:.3f} ms\n", times.size(), sent,
                       least, median, most);
}

void ping(const PingArguments& arguments)
{
    const comm::TimeNs deadline = arguments.common.deadline();
    const System system(false);
    const ServiceDef service = findService(system, arguments.path, deadline);
    ServiceConnection connection(service);
    const ServiceConnection::Client client = connection.client(deadline);
    Waits waits;
    const ReaderWatch reader([&waits] { waits.interrupt(); });
    const auto interval = static_cast<comm::TimeNs>(arguments.intervalSeconds * 1e9);
    std::vector<comm::TimeNs> times;
    Round worst;
    comm::TimeNs next = comm::now();
    for (std::uint64_t number = 1; number <= arguments.count; ++number, next += interval) {
        waits.pauseUntil(next);
        const Round round = measure(client, service, arguments, waits);
        print(lineOf(number, round, arguments.common.isJson));
        if (round.problem.empty()) {
            times.push_back(round.time);
        } else {
            worst = round;
        }
    }
    if (!times.empty()) {
        print(summaryOf(arguments.count, std::move(times), arguments.common.isJson));
    }
    if (!worst.problem.empty()) {
        throw Failure{worst.exitCode, fmt::format("{} did not answer each request: {}", arguments.path, worst.problem)};
    }
}

} // namespace

void addPing(CLI::App& app)
{
    auto arguments = std::make_shared<PingArguments>();
    CLI::App* const command =
        app.add_subcommand("ping", "Measures how long a request takes to a service and back; it does nothing there.");
    command->add_option("PATH", arguments->path, "Of the service.")->required()->check(checkPath)->type_name("");
    command->add_option("--count", arguments->count, "So many requests.")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1'000'000}))
        ->type_name("REQUESTS")
        ->capture_default_str();
    command->add_option("--interval", arguments->intervalSeconds, "From one request to the next.")
        ->check(checkInterval)
        ->type_name("SECONDS")
        ->capture_default_str();
    addCommonOptions(*command, arguments->common, "How long until each answer; also for the registry at first.");
    command->callback([arguments] { ping(*arguments); });
}

} // namespace kesactl
