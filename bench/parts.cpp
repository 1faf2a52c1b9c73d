// The parts of the runtime that every process uses all the time, each beside the least that could do it. CPU times of
// this thread, so that a busy machine changes little.
//     kesa_bench_parts [rounds]
#include "Comparison.h"
#include "clocks.h"
#include "require.h"

#include <kesa/PathPatterns.h>
#include <kesa/core/PayloadConversion.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/mimetypes.h>
#include <kesa/serviceregistry/RegistryUpdate.h>
#include <runtime/v02/runtime/EventLog.h>
#include <tracing/Channel.h>

#include <fnmatch.h>

#ifdef __SSE2__
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/reader.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using bench::require;
using kesa::Payload;
using kesa::serviceregistry::RegistryUpdate;
using kesa::serviceregistry::ServiceDef;
namespace eventlog = kesa::runtime::v02::eventlog;
namespace mimetypes = kesa::mimetypes;
namespace serializer = kesa::serializer;

/// Nanoseconds of this thread's CPU time per call.
template <class Work>
double timed(int times, Work&& work)
{
    const std::int64_t start = bench::threadCpuNs();
    for (int i = 0; i < times; ++i) {
        work();
    }
    return static_cast<double>(bench::threadCpuNs() - start) / times;
}

/// Keeps the compiler from leaving out what makes `value`.
template <class T>
void use(const T& value)
{
    asm volatile("" : : "g"(&value) : "memory");
}

std::shared_ptr<ServiceDef> makeService(int number)
{
    const std::string path = "/media/player" + std::to_string(number);
    return std::make_shared<ServiceDef>(
        kesa::Path(path), ServiceDef::TypeEnum::pex, std::vector<std::string>{"1.0.0"},
        std::vector<kesa::url>{kesa::url("ipc://media" + path)}, obr::UUID::generate(),
        kesa::GenericObject{{"provider", "media"}, {"level", number}},
        std::vector<std::string>{std::string(mimetypes::JSON), std::string(mimetypes::QELBIN)}, "cabin",
        std::vector<std::string>{"local"});
}

/// What a bare parser needs for the same bytes: it must copy them, since it decodes in place.
class BareParser {
public:
    void parse(const Payload& document)
    {
        constexpr std::size_t PADDING = 16;
        m_text.resize(document.size() + PADDING);
        std::memcpy(m_text.data(), document.data(), document.size());
        std::memset(m_text.data() + document.size(), 0, PADDING);
        rapidjson::InsituStringStream stream(m_text.data());
        rapidjson::BaseReaderHandler<> handler;
        constexpr unsigned FLAGS =
            rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;
        require(!m_reader.Parse<FLAGS>(stream, handler).IsError(), "bare parser");
    }

private:
    rapidjson::Reader m_reader;
    std::vector<char> m_text;
};

void compareRecords(int rounds)
{
    constexpr int TIMES = 2000;
    const auto service = makeService(1);
    for (const std::string_view mimeType : {mimetypes::JSON, mimetypes::MSGPACK, mimetypes::QELBIN}) {
        const std::string format(mimeType.substr(mimeType.find_last_of("/.") + 1));
        const Payload payload = serializer::toPayload(*service, mimeType).value();
        ServiceDef copy;
        require(!serializer::readPayload(payload, copy) && copy == *service, "record there and back");
        const bench::Side bytes{
            "copy", [&] {
                return timed(TIMES, [&] { use(Payload::createFromString(std::string(payload.text()), mimeType)); });
            }};
        bench::compare(
            "ServiceDef, written as " + format, bytes,
            {"writer", [&] { return timed(TIMES, [&] { use(serializer::toPayload(*service, mimeType)); }); }}, rounds);
        bench::compare("ServiceDef, read from " + format, bytes,
                       {"reader",
                        [&] {
                            return timed(TIMES, [&] {
                                ServiceDef read;
                                use(serializer::readPayload(payload, read));
                            });
                        }},
                       rounds);
    }
}

void compareUpdates(int rounds)
{
    constexpr int COUNT = 10'000;
    std::vector<RegistryUpdate> updates;
    for (int i = 0; i < COUNT; ++i) {
        updates.emplace_back(RegistryUpdate::UpdateTypeEnum::ADDED, makeService(i));
    }
    const Payload payload = serializer::toPayload(updates, mimetypes::JSON).value();
    std::vector<RegistryUpdate> read;
    require(!serializer::readPayload(payload, read) && read.size() == COUNT &&
                *read.back().element == *updates.back().element,
            "updates there and back");
    BareParser parser;
    bench::compare("10,000 updates read from json, each",
                   {"parser", [&] { return timed(1, [&] { parser.parse(payload); }) / COUNT; }},
                   {"reader",
                    [&] {
                        return timed(1,
                                     [&] {
                                         std::vector<RegistryUpdate> all;
                                         require(!serializer::readPayload(payload, all), "updates");
                                     }) /
                               COUNT;
                    }},
                   rounds, 2);
}

void compareGlobs(int rounds)
{
    constexpr int TIMES = 100'000;
    const std::string path = "/media/player/queue";
    struct Case {
        const char* what;
        const char* glob;
        std::vector<const char*> plain; ///< for `fnmatch`, which knows no alternatives and no "**"
    };
    for (const Case& one : {Case{"glob: a path", "/media/player/queue", {"/media/player/queue"}},
                            Case{"glob: prefix/**", "/media/**", {"/media/*"}},
                            Case{"glob: alternatives",
                                 "/{sensors,media}/{cabin,player}/q*",
                                 {"/sensors/cabin/q*", "/sensors/player/q*", "/media/cabin/q*", "/media/player/q*"}}}) {
        const auto patterns = kesa::PathPatterns::createFromGlob(one.glob);
        require(patterns && patterns->match(path) && !patterns->match("/media2/player"), "match");
        bench::compare(one.what,
                       {"fnmatch",
                        [&] {
                            return timed(TIMES, [&] {
                                bool matches = false;
                                for (const char* plain : one.plain) {
                                    matches = matches || ::fnmatch(plain, path.c_str(), 0) == 0;
                                }
                                require(matches, "fnmatch");
                            });
                        }},
                       {"PathPatterns", [&] { return timed(TIMES, [&] { require(patterns->match(path), "match"); }); }},
                       rounds);
    }
}

[[gnu::noinline]] void doNothing(const std::string& text)
{
    asm volatile("" : : "g"(&text) : "memory");
}
[[gnu::noinline]] void traceNothing(const std::string& text)
{
    static const tracing::Channel& channel = *new tracing::Channel("KESA_BENCH");
    asm volatile("" : : "g"(&text) : "memory");
    KESA_TRACE(channel, 1, "[bench] '%s'", text.c_str());
}
[[gnu::noinline]] void logNothing(const std::string& text)
{
    asm volatile("" : : "g"(&text) : "memory");
    eventlog::trackingStart(text, text);
}

void compareDisabled(int rounds)
{
    constexpr int TIMES = 2'000'000;
    const std::string text = "/media/player";
    const bench::Side empty{"empty", [&] { return timed(TIMES, [&] { doNothing(text); }); }};
    bench::compareExcess("a disabled trace", empty,
                         {"trace", [&] { return timed(TIMES, [&] { traceNothing(text); }); }}, rounds, 1);
    bench::compareExcess("a disabled line of the event log", empty,
                         {"event", [&] { return timed(TIMES, [&] { logNothing(text); }); }}, rounds, 1);
}

void compareCopies(int rounds)
{
    constexpr int TIMES = 20'000;
    const auto service = makeService(1);
    std::map<std::string, std::string> plain;
    for (int i = 0; i < 20; ++i) {
        const std::string key = "key" + std::to_string(i);
        const std::string value = "a value that is not short " + std::to_string(i);
        service->metainfo->set(key, value);
        plain.emplace(key, value);
    }
    bench::compare("copy of a ServiceDef with 20 keys",
                   {"map",
                    [&] {
                        return timed(TIMES, [&] {
                            const auto copy = plain;
                            use(copy);
                        });
                    }},
                   {"ServiceDef",
                    [&] {
                        return timed(TIMES, [&] {
                            const ServiceDef copy = *service;
                            use(copy);
                        });
                    }},
                   rounds);
}

/// A service with that many routes of three segments.
std::unique_ptr<kesa::ResourceHandler> makeRoutes(int count)
{
    auto service = std::make_unique<kesa::ResourceHandler>();
    for (int i = 0; i < count; ++i) {
        service->onRetrieve("/zone" + std::to_string(i % 10) + "/seat" + std::to_string(i) + "/{part}",
                            [](const kesa::Request&, kesa::Responder responder) { responder.complete(); });
    }
    return service;
}

void compareRoutes(int rounds)
{
    constexpr int TIMES = 20'000;
    struct Count : kesa::IResponseHandler<kesa::Response> {
        explicit Count(int& c) : completed(c) {}
        bool onNext(const kesa::Response&) override { return true; }
        void onError(const kesa::Response&) override {}
        void onCompleted() override { ++completed; }
        int& completed;
    };
    const auto served = [](std::shared_ptr<kesa::ResourceHandler> service, const char* path) {
        return [service = std::move(service), request = kesa::Request("retrieve", path)] {
            int completed = 0;
            const double ns = timed(TIMES, [&] { service->request(request, std::make_unique<Count>(completed)); });
            require(completed == TIMES, "served");
            return ns;
        };
    };
    const bench::Side few{"10 routes", served(makeRoutes(10), "/zone5/seat5/heat")};
    bench::compare("a request that is served", few, {"1,000", served(makeRoutes(1000), "/zone5/seat505/heat")}, rounds);
    bench::compare("a request that is served", few, {"20,000", served(makeRoutes(20'000), "/zone5/seat10005/heat")},
                   rounds);
    const auto making = [](int count) { return [=] { return timed(1, [=] { makeRoutes(count); }) / count; }; };
    for (const int count : {1000, 8000, 20'000}) {
        bench::compare("a route made, each", {"10 routes", making(10)}, {std::to_string(count), making(count)},
                       std::min(rounds, 5));
    }
}

} // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 15;
    compareRecords(rounds);
    compareUpdates(rounds);
    compareGlobs(rounds);
    compareDisabled(rounds);
    compareCopies(rounds);
    compareRoutes(rounds);
    return 0;
}
