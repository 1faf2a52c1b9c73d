// What a process does that keeps no rule of docs/protocol.md. Most of it is nearly right, since what is all wrong is
// not read on. It may harm nobody but itself, and who is led to it by a record that it may register.

#include "Run.h"

#include "support/wire.h"

#include <algorithm>

namespace kesa::sim {

namespace {

using Texts = std::vector<std::string>;

constexpr std::int64_t ITS_USER = 1001;
constexpr char RETRIEVE = 0;
constexpr std::size_t FRAGMENT_BYTES = 65536;
const std::string SIZE_OF_MUCH("\xbf\x03\x1a\x00\x20\x00\x00\xff", 8); // a head: 2 MiB of body follow
const std::string INSTANCE = "liarliarliarliar";
const Texts PLACES = {"/.well-known/process", "/s/a", "/s/c", "/d/a", "/d/b", "/liar/a"};
const Texts RESOURCES = {"/", Wish::WHO, Wish::LARGE, "/.well-known/resources", "../.."};
const Texts NOWHERE = {"[]", R"(["tcp://liar/d/a"])", R"(["ipc://liar+elsewhere/a", "tcp://l:1/a"])",
                       R"(["ipc://liar/"])", R"(["ipc://liar/d/a?b"])"};
const std::vector<std::uint32_t> STATUSES = {0, 1, 199, 404, 503, 504, 999, 65535, 65536};
const std::vector<std::uint32_t> ODD_NUMBERS = {0, 65536, 65537, 0xFFFFFFFF};

std::string repeated(const std::string& bytes, std::uint64_t times)
{
    std::string all;
    for (; times > 0; --times) {
        all += bytes;
    }
    return all;
}

} // namespace

// ---- it comes and goes --------------------------------------------------------------------------------------------

void Run::bringLiar()
{
    m_isLiarTrusted = oneIn(4);
    m_world.addStranger(m_isLiarTrusted ? 0 : ITS_USER, [this](std::uint64_t group) {
        m_liar = std::make_unique<Liar>(
            m_world.network(), group, [this] { return oneIn(3) ? someHello() : wire::hello(INSTANCE, LIAR); },
            [this](std::string_view frame) { return answerOf(frame); });
    });
}

void Run::endLiar()
{
    m_world.killStranger();
    m_liar.reset();
}

void Run::lie()
{
    const std::uint64_t choice = draw(16);
    Process& process = m_options.registry && oneIn(2) ? m_world.registry() : *pick(m_world.processes());
    if (choice == 0) {
        endLiar();
        bringLiar();
    } else if (choice < 4) {
        m_liar->say(m_random.next(), oneIn(2) ? someFrames() : unasked());
    } else if (choice < 7 && process.isRunning()) {
        believe(process);
    } else if (choice == 7) {
        m_liar->connect(process.name, someHello() + askWithoutEnd(), !oneIn(4));
    } else {
        m_liar->connect(process.name, someHello() + (process.isRegistry ? claims() : someFrames()), !oneIn(4));
    }
    fewSteps(40);
}

/// Has its locator, and asks it.
void Run::believe(Process& process)
{
    m_world.subscribe(process, Stream::eRESOLVE, "ipc://" + std::string(LIAR) + pick(LIARS_PATHS));
    pass();
    for (std::uint64_t count = draw(8); count > 0; --count) {
        call(process, process.subscriptions.back());
    }
}

// ---- as a client --------------------------------------------------------------------------------------------------

std::string Run::rubbish(std::size_t most)
{
    std::string bytes(draw(most), ' ');
    std::generate(bytes.begin(), bytes.end(), [this] { return static_cast<char>(draw(256)); });
    return bytes;
}

/// Mostly one that is taken; some in the name of another, or of its instance, which each hello tells.
std::string Run::someHello()
{
    const std::string& instance = m_instances.empty() || !oneIn(3) ? INSTANCE : pick(m_instances);
    if (oneIn(3)) {
        return pick(Texts{"", rubbish(60), wire::hello(instance, LIAR, static_cast<char>(draw(5))),
                          repeated(wire::hello(instance, LIAR), 2)});
    }
    return wire::hello(instance, oneIn(4) ? pick(m_world.processes())->name : LIAR);
}

std::uint32_t Run::someNumber()
{
    return oneIn(60) ? pick(ODD_NUMBERS) : static_cast<std::uint32_t>(1 + draw(oneIn(2) ? 2 : 40));
}

std::string Run::someFrames()
{
    std::string frames = oneIn(4) ? std::string() : wire::attach(1, pick(PLACES));
    for (std::uint64_t count = draw(12); count > 0; --count) {
        frames += oneIn(5) ? fatalFrame() : someFrame();
    }
    return oneIn(4) ? frames.substr(0, draw(frames.size() + 1)) : frames;
}

/// With numbers that are in use, were, or never have been.
std::string Run::someFrame()
{
    const std::uint32_t stream = someNumber();
    const std::uint32_t target = someNumber();
    const auto bytes = static_cast<std::uint32_t>(1 + draw(oneIn(2) ? 90 : 9000));
    return pick(Texts{wire::attach(target, pick(PLACES)), wire::frame(wire::eDETACHED, 0, target),
                      wire::request(stream, 1, pick(RESOURCES)), wire::request(stream, target, pick(RESOURCES)),
                      wire::ask(stream, target, RETRIEVE, pick(RESOURCES), {}), wire::frame(wire::eCANCEL, stream, 0),
                      wire::frame(wire::ePING, 0, 0), wire::frame(wire::ePONG, 0, 0),
                      repeated(wire::frame(wire::eCREDIT, stream, bytes), 1 + draw(2))});
}

/// That nobody has to take: of a server's kind, of sizes that are not so, in fragments without an end.
std::string Run::fatalFrame()
{
    const std::uint32_t stream = someNumber();
    const std::uint32_t target = someNumber();
    switch (draw(5)) {
    case 0:
        return wire::frame(static_cast<std::uint8_t>(wire::eNEXT + draw(3)), stream, 200);
    case 1:
        return wire::beginningOfRequest(stream, target, static_cast<std::uint32_t>(draw(2'000'000)));
    case 2:
        return wire::fragmentOfRequest(stream, target);
    case 3:
        return wire::frame(static_cast<std::uint8_t>(draw(18)), stream, target, rubbish(20), rubbish(20),
                           static_cast<std::uint8_t>(draw(4)));
    default:
        return rubbish(400);
    }
}

/// Beyond what may wait: a request takes 256 bytes of the window of its connection.
std::string Run::askWithoutEnd()
{
    std::string frames = wire::attach(1, pick(PLACES));
    for (std::uint32_t stream = 1; stream < wire::REQUEST_WINDOW / 128; ++stream) {
        frames += wire::request(stream, 1, Wish::LARGE);
    }
    return frames;
}

/// At the registry, what it may have and what it may not; queries and trackings, of which it may read nothing.
std::string Run::claims()
{
    std::string frames = wire::attach(1, REGISTRY_PATH);
    for (std::uint64_t count = 1 + draw(6); count > 0; --count) {
        const auto stream = static_cast<std::uint32_t>(oneIn(8) ? 1 : count);
        const std::string path = pick(oneIn(3) ? DYNAMIC_PATHS : LIARS_PATHS);
        if (oneIn(3)) {
            frames += oneIn(2) ? wire::ask(stream, 1, RETRIEVE, path, {})
                               : wire::ask(stream, 1, RETRIEVE, "/", R"({"pattern":"**"})");
        } else {
            m_world.noteClaim(path);
            frames += wire::registration(stream, 1, path, someRoads(path));
        }
    }
    return frames;
}

/// To itself, to others, or to nobody: that root may register, and who looks for it has what he has asked for.
std::string Run::someRoads(const std::string& path)
{
    if (oneIn(4)) {
        return R"(["ipc://)" + pick(m_world.processes())->name + pick(DYNAMIC_PATHS) + R"("])";
    }
    return oneIn(4) && !m_isLiarTrusted ? pick(NOWHERE) : R"(["ipc://liar)" + path + R"("])";
}

// ---- what it answers ----------------------------------------------------------------------------------------------

std::optional<std::string> Run::answerOf(std::string_view frame)
{
    const std::uint32_t stream = wire::streamOf(frame);
    switch (wire::kindOf(frame)) {
    case wire::eHELLO:
        m_instances.push_back(wire::instanceIn(frame));
        return std::string();
    case wire::eATTACH:
        return oneIn(10) ? std::nullopt : std::optional(answerToAttach(wire::targetOf(frame)));
    case wire::eREQUEST:
        return oneIn(14) ? std::nullopt : std::optional(answerToRequest(stream));
    case wire::eCANCEL:
        return oneIn(3) ? std::string() : wire::frame(wire::eERROR, stream, 503);
    case wire::ePING:
        return oneIn(4) ? std::string() : wire::frame(wire::ePONG, 0, 0);
    case wire::eNEXT: // gives credit back never, once or twice
        return repeated(wire::frame(wire::eCREDIT, stream, static_cast<std::uint32_t>(wire::sizeOf(frame))), draw(3));
    default:
        return oneIn(30) ? std::nullopt : std::optional(std::string());
    }
}

std::string Run::answerToAttach(std::uint32_t target)
{
    const std::string attached = wire::frame(wire::eATTACHED, 0, target);
    const std::string detached = wire::frame(wire::eDETACHED, 0, target);
    return pick(Texts{attached, attached, attached, attached, "", attached + attached, attached + detached,
                      attached + detached + attached, wire::frame(wire::eATTACHED, 0, target + 1)});
}

std::string Run::answerToRequest(std::uint32_t stream)
{
    const std::string value = wire::frame(wire::eNEXT, stream, 200, {}, rubbish(60));
    const std::string completed = wire::frame(wire::eCOMPLETED, stream, 0);
    switch (draw(12)) {
    case 0:
        return value.substr(0, draw(value.size()));
    case 1: // after its end
        return value + completed + value + completed;
    case 2: // more than any window
        return repeated(wire::frame(wire::eNEXT, stream, 200, {}, std::string(6000, 'l')), 1 + draw(20));
    case 3:
        return wire::frame(wire::eERROR, stream, pick(STATUSES), {}, rubbish(60));
    case 4:
        return wire::frame(wire::eNEXT, stream, pick(STATUSES)) + completed;
    case 5: // unasked
        return wire::frame(wire::eNEXT, someNumber(), 200) + wire::frame(wire::eCOMPLETED, someNumber(), 0);
    case 6:
        return value + wire::frame(wire::eREQUEST_CREDIT, 0, static_cast<std::uint32_t>(1 + draw(9000)));
    case 7: // never ended
        return wire::frame(wire::eNEXT, stream, 200, SIZE_OF_MUCH,
                           std::string(FRAGMENT_BYTES - SIZE_OF_MUCH.size(), 'l'), wire::eMORE);
    default:
        return value + completed;
    }
}

/// Comes and goes, and answers, whatever targets and requests there are.
std::string Run::unasked()
{
    std::string frames;
    for (std::uint64_t count = draw(6); count > 0; --count) {
        frames += oneIn(2) ? answerToAttach(someNumber()) : answerToRequest(someNumber());
    }
    return frames;
}

} // namespace kesa::sim
