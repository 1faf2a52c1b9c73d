// Written as text, element by element: there may be a thousand connections, and the loop has others to serve.

#include "backend/ProcessDescription.h"

#include <comm/processStart.h>
#include <obr/ErrorStorage.h>
#include <util/config/JSONParser.h>

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <string_view>
#include <system_error>

namespace kesa::commadapter {

namespace {

using util::config::Value;

std::string asJson(std::string text)
{
    const std::string list = Value(Value::Array{Value(std::move(text))}).toText();
    return list.substr(1, list.size() - 2);
}

void appendText(std::string& out, std::string_view text)
{
    const bool isPlain =
        std::none_of(text.begin(), text.end(), [](char c) { return c < 0x20 || c > 0x7e || c == '"' || c == '\\'; });
    if (isPlain) {
        out.append(1, '"').append(text).append(1, '"');
        return;
    }
    std::string json = asJson(std::string(text));
    Value ignored;
    if (util::config::JSONParser().parseString("[" + json + "]", ignored)) { // names of files may be any bytes
        obr::ErrorStorage::ack();
        std::replace_if(
            json.begin(), json.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; }, '?');
    }
    out += json;
}

/// One object, member by member.
class ObjectWriter {
public:
    explicit ObjectWriter(std::string& out) : m_out(out) { m_out += '{'; }
    ~ObjectWriter() { m_out += '}'; }
    ObjectWriter(const ObjectWriter&) = delete;
    ObjectWriter& operator=(const ObjectWriter&) = delete;

    void text(std::string_view name, std::string_view value) { appendText(member(name), value); }
    template <class Integer>
    void number(std::string_view name, Integer value)
    {
        fmt::format_to(std::back_inserter(member(name)), "{}", value);
    }
    void flag(std::string_view name, bool value) { member(name) += value ? "true" : "false"; }
    /// The first elements, up to a number and a length.
    template <class Element, class Append>
    void list(std::string_view name, const std::vector<Element>& elements, std::size_t mostBytes, const Append& append)
    {
        member(name) += '[';
        const std::size_t begin = m_out.size();
        const std::size_t most = std::min(elements.size(), ProcessDescription::MOST_NAMED);
        for (std::size_t i = 0; i < most && m_out.size() - begin < mostBytes; ++i) {
            m_out.append(i == 0 ? "" : ",");
            append(m_out, elements[i]);
        }
        m_out += ']';
    }

private:
    std::string& member(std::string_view name)
    {
        m_out.append(m_out.back() == '{' ? "\"" : ",\"").append(name).append("\":");
        return m_out;
    }

    std::string& m_out;
};

std::int64_t milliseconds(comm::TimeNs time)
{
    return time / comm::MILLISECOND;
}

void appendConnection(std::string& out, const ConnectionFacts& facts)
{
    ObjectWriter connection(out);
    connection.text("openedBy", facts.isByPeer ? "peer" : "self");
    if (!facts.process.empty()) {
        connection.text("process", facts.process);
    }
    connection.flag("connected", facts.isConnected);
    if (facts.pid >= 0) {
        connection.number("pid", facts.pid);
        connection.number("uid", facts.uid);
    }
    if (facts.since != 0) {
        connection.number("since", milliseconds(facts.since));
    }
    connection.number("openRequests", facts.openRequests);
    connection.number("queuedBytes", facts.queuedBytes);
    connection.number("unreadBytes", facts.unreadBytes);
    if (facts.isByPeer) {
        connection.flag("held", facts.isHeld);
        connection.number("cutStreams", facts.cutStreams);
    }
    if (!facts.reason.empty()) {
        connection.text("reason", facts.reason);
    }
}

void appendHold(std::string& out, const ProcessDescription::Hold& hold)
{
    ObjectWriter object(out);
    object.text("loop", hold.loop);
    object.number("heldMs", milliseconds(hold.time));
    object.text("holder", hold.holder);
}

} // namespace

std::string ProcessDescription::toJson(std::size_t mostBytes) const
{
    const pid_t pid = ::getpid();
    std::error_code unknown;
    std::string json;
    {
        ObjectWriter description(json);
        description.text("process", process);
        description.number("pid", pid);
        description.number("uid", ::geteuid());
        description.text("instance", instance.toString());
        description.text("version", KESA_VERSION);
        description.text("executable", std::filesystem::read_symlink("/proc/self/exe", unknown).native());
        description.number("started", milliseconds(comm::processStart(pid)));
        description.number("backendStarted", milliseconds(started));
        if (!document.empty()) {
            description.text("document", document);
        }
        description.text("runDirectory", runDirectory);
        description.text("realm", realm);
        description.list("services", services, mostBytes / 2, appendText);
        description.number("serviceCount", serviceCount);
        if (areServicesClosed) {
            description.flag("servicesClosed", true);
        }
        description.list("connections", connections, mostBytes / 2, appendConnection);
        description.number("connectionCount", connectionCount);
        description.number("queuedBytes", queuedBytes);
        if (!holds.empty()) {
            description.list("holds", holds, mostBytes / 2, appendHold);
        }
    }
    return json;
}

} // namespace kesa::commadapter
