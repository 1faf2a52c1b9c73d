#include "protocol/Input.h"

#include "protocol/Rules.h"
#include "protocol/TrailingBytes.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace kesa::commadapter::protocol {

namespace {

/// Of a head that is kept to know the next one by; one that is larger is rare, and a connection idle at most times.
constexpr std::size_t MOST_KNOWN_BYTES = 4U << 10U;

} // namespace

Input::Input(Role role, const Hello& own, const Limits& limits, IMachineListener& listener, Shared& shared)
    : m_role(role), m_own(own), m_limits(limits), m_listener(listener), m_shared(shared)
{}

std::span<unsigned char> Input::buffer()
{
    if (m_current != nullptr) {
        // The header of the next fragment is read along, so that its body, too, goes straight to its place.
        return m_current->body.room(m_remaining + (m_currentHasMore ? HEADER_BYTES : 0));
    }
    return {m_block.get() + m_end, ReceiveBlock::BYTES - m_end};
}

void Input::giveBufferBack() noexcept
{
    if (m_begin == m_end) {
        m_block.giveBack();
    }
    if (m_known.bytes.capacity() > MOST_KNOWN_BYTES) {
        m_known = KnownHead();
    }
}

bool Input::received(std::size_t size, comm::TimeNs now, comm::TimeNs until)
{
    if (m_hasFailed) {
        return true;
    }
    m_shared.lastReceived.store(now, std::memory_order_relaxed);
    m_shared.receivedCount.fetch_add(1, std::memory_order_relaxed);
    if (m_current != nullptr) {
        Body& body = m_current->body;
        const std::size_t ofBody = std::min(size, m_remaining);
        body.arrived(ofBody);
        m_remaining -= ofBody;
        if (m_remaining > 0) {
            return false;
        }
        std::copy_n(body.data() + body.size(), size - ofBody, m_block.get());
        size -= ofBody;
        if (endOfFrame()) {
            return true;
        }
    }
    m_end += size;
    return readFrames(now, until);
}

bool Input::readFrames(comm::TimeNs now, comm::TimeNs until)
{
    bool failed = false;
    m_isPaused = false;
    m_isWaiting = false;
    m_slice.begin(now, until);
    while (!m_isPaused && !readFrame(failed)) {
        m_isPaused = m_end > m_begin && m_slice.isOver();
    }
    // What is left is less than a frame, and in most cases nothing, unless it is held. While paused nothing is read.
    if (m_begin > 0 && !failed && !m_isPaused) {
        std::memmove(m_block.get(), m_block.get() + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
    }
    return failed;
}

bool Input::readFrame(bool& failed)
{
    const std::size_t size = m_end - m_begin;
    if (size < HEADER_BYTES) {
        return true;
    }
    const unsigned char* const at = m_block.get() + m_begin;
    const FrameHeader header = readHeader(at);
    failed = checkHeader(header);
    if (failed) {
        return true;
    }
    const unsigned char* const content = at + HEADER_BYTES;
    const std::size_t available = size - HEADER_BYTES;
    const bool isComplete = available >= header.length;
    const bool isLarge = ruleOf(header.kind).hasBody &&
                         (header.body() > INLINE_BODY_BYTES || header.hasMore() || m_partials.count(header.stream) > 0);
    if (!isComplete && (!isLarge || available < header.head)) {
        return true;
    }
    const std::size_t taken = std::min<std::size_t>(available, header.length);
    if (isLarge && m_partials.count(header.stream) == 0) {
        failed = begin(header, content, isComplete, m_isWaiting);
        if (failed || m_isWaiting) {
            return true;
        }
    }
    m_begin += HEADER_BYTES + taken;
    failed = isLarge ? handlePartial(header, content, taken) : handle(header, content);
    return failed || !isComplete;
}

bool Input::checkHeader(const FrameHeader& header)
{
    const Rule& rule = ruleOf(header.kind);
    if (header.length > FRAME_BYTES) {
        return fail(fmt::format("frame of {} bytes, more than {}", header.length, FRAME_BYTES));
    }
    if (header.head > header.length) {
        return fail(fmt::format("head of {} bytes in a frame of {}", header.head, header.length));
    }
    if ((header.flags & ~(FLAG_MORE | FLAG_MAY_BE_IGNORED)) != 0) {
        return fail(fmt::format("unknown flags {:#04x}", header.flags));
    }
    if (m_hasHello == (header.kind == static_cast<std::uint8_t>(Kind::eHELLO))) {
        return fail(m_hasHello ? "second hello" : fmt::format("first message is of kind {}, not hello", header.kind));
    }
    if (rule.name == nullptr) {
        return (header.flags & FLAG_MAY_BE_IGNORED) == 0 && fail(fmt::format("unknown kind {}", header.kind));
    }
    std::string why;
    if (breaksRule(header, rule, m_role == Role::eCLIENT, why)) {
        return fail(std::move(why));
    }
    if (header.head > m_limits.maxHeadBytes) {
        return fail(fmt::format("head of {} bytes, more than {}", header.head, m_limits.maxHeadBytes));
    }
    if (rule.hasBody && header.length > m_limits.maxMessageBytes) {
        return fail(fmt::format("{} of {} bytes, more than {}", rule.name, header.length, m_limits.maxMessageBytes));
    }
    return rule.hasStream && (header.hasMore() || !m_partials.empty()) && checkFragment(header);
}

bool Input::checkFragment(const FrameHeader& header)
{
    const char* const name = ruleOf(header.kind).name;
    if (header.hasMore() && header.length != FRAME_BYTES) {
        return fail(fmt::format("fragment of {} bytes, all but the last have {}", header.length, FRAME_BYTES));
    }
    const auto found = m_partials.find(header.stream);
    if (found == m_partials.end()) {
        if (header.hasMore() && m_partials.size() >= MAX_INTERLEAVED) {
            return fail(fmt::format("more than {} fragmented messages at once", MAX_INTERLEAVED));
        }
        return false;
    }
    const Partial& partial = found->second;
    if (header.kind != partial.header.kind || header.target != partial.header.target || header.head > 0) {
        return fail(fmt::format("{} of stream {} between the fragments of another message", name, header.stream));
    }
    const std::size_t missing = partial.body.missing();
    if (header.hasMore() ? header.body() >= missing : header.body() != missing) {
        return fail(fmt::format("fragments of stream {} do not make the {} bytes declared", header.stream,
                                partial.body.declared()));
    }
    return false;
}

bool Input::handle(const FrameHeader& header, const unsigned char* content)
{
    switch (static_cast<Kind>(header.kind)) {
    case Kind::eHELLO:
        return handleHello(header, content);
    case Kind::eATTACH:
        return handleAttach(header, content);
    case Kind::eATTACHED:
        m_listener.onAttached(header.target);
        return false;
    case Kind::eDETACHED:
        m_role == Role::eSERVER ? m_listener.onDetach(header.target) : m_listener.onDetached(header.target);
        return false;
    case Kind::eREQUEST:
    case Kind::eNEXT:
    case Kind::eERROR:
        return handleMessage(header, content);
    case Kind::eCOMPLETED:
        m_listener.onCompleted(header.stream);
        return false;
    case Kind::eCANCEL:
        m_listener.onCancel(header.stream);
        return false;
    case Kind::ePING:
        m_shared.pongsOwed.fetch_add(1, std::memory_order_relaxed);
        return false;
    case Kind::ePONG:
        ++m_pongs;
        return false;
    case Kind::eGOODBYE:
        return handleGoodbye(header, content);
    case Kind::eCREDIT:
        m_listener.onCredit(header.stream, header.target);
        return false;
    case Kind::eREQUEST_CREDIT:
        m_listener.onRequestCredit(header.target);
        return false;
    default: // a kind that may be ignored
        return false;
    }
}

bool Input::handleHello(const FrameHeader& header, const unsigned char* content)
{
    Hello peer;
    std::string why;
    if (readHello(content, header.head, peer, why)) {
        return fail(fmt::format("broken head of hello: {}", why));
    }
    const std::uint16_t version = std::min(m_own.highestVersion, peer.highestVersion);
    if (version < std::max(m_own.lowestVersion, peer.lowestVersion)) {
        return fail(fmt::format("{}: this side speaks {} to {}, the peer {} to {}", NO_COMMON_VERSION,
                                m_own.lowestVersion, m_own.highestVersion, peer.lowestVersion, peer.highestVersion));
    }
    m_hasHello = true;
    m_shared.peerMaxMessageBytes.store(peer.maxMessageBytes, std::memory_order_relaxed);
    m_shared.peerStreamWindow.store(peer.streamWindow, std::memory_order_relaxed);
    m_shared.hasHello.store(true, std::memory_order_relaxed);
    m_listener.onHello(peer);
    return false;
}

bool Input::handleGoodbye(const FrameHeader& header, const unsigned char* content)
{
    std::string reason;
    std::string why;
    if (readGoodbye(content, header.head, reason, why)) {
        return fail(fmt::format("broken head of goodbye: {}", why));
    }
    m_listener.onGoodbye(std::move(reason));
    return false;
}

bool Input::readMessageHead(const FrameHeader& header, const unsigned char* content, Head& head)
{
    std::string why;
    return readHead(content, header.head, head, why) &&
           fail(fmt::format("broken head of {}: {}", ruleOf(header.kind).name, why));
}

bool Input::handleAttach(const FrameHeader& header, const unsigned char* content)
{
    Head head;
    if (readMessageHead(header, content, head)) {
        return true;
    }
    if (head.path.empty() || head.path.size() > MAX_PATH_BYTES) {
        return fail(fmt::format("attach of a path of {} bytes", head.path.size()));
    }
    m_listener.onAttach(header.target, std::string(head.path));
    return false;
}

bool Input::needsSource(const FrameHeader& header, const Head& head) const noexcept
{
    return head.hasHeaders || (m_clientId != nullptr && header.kind == static_cast<std::uint8_t>(Kind::eREQUEST));
}

bool Input::readKnownHead(const FrameHeader& header, const unsigned char* content)
{
    std::vector<unsigned char>& bytes = m_known.bytes;
    if (bytes.size() == header.head && std::equal(bytes.begin(), bytes.end(), content)) {
        return false;
    }
    bytes.assign(content, content + header.head);
    m_known.head = Head();
    return readMessageHead(header, bytes.data(), m_known.head);
}

bool Input::handleMessage(const FrameHeader& header, const unsigned char* content)
{
    if (readKnownHead(header, content)) {
        return true;
    }
    const Head& head = m_known.head;
    if (head.bodySize) {
        return fail(fmt::format("{} of one frame declares a body size", ruleOf(header.kind).name));
    }
    // Headers and body get one block: what is not decoded yet stays in front of the body.
    unsigned char* block = nullptr;
    std::shared_ptr<const void> owner;
    std::shared_ptr<HeaderSource> source;
    const std::size_t kept = head.hasHeaders ? header.head : 0U;
    if (needsSource(header, head)) {
        const bool isRequest = header.kind == static_cast<std::uint8_t>(Kind::eREQUEST);
        source = makeWithBytes<HeaderSource>(kept + header.body(), block, isRequest, isRequest ? m_clientId : nullptr);
        source->setHead(block, kept);
        owner = source;
    } else if (header.body() > 0) {
        std::shared_ptr<unsigned char[]> bytes = std::make_shared_for_overwrite<unsigned char[]>(header.body());
        block = bytes.get();
        owner = std::move(bytes);
    }
    if (kept + header.body() > 0) {
        std::memcpy(block, content + header.head - kept, kept + header.body());
    }
    deliver(header, head, Payload(std::move(owner), block + kept, header.body(), head.mimeType), std::move(source));
    return false;
}

bool Input::begin(const FrameHeader& header, const unsigned char* content, bool isWhole, bool& isLater)
{
    const char* const name = ruleOf(header.kind).name;
    // Everything that outlives this frame's bytes is copied: the head's block also feeds the views in `Head`.
    unsigned char* block = nullptr;
    const bool isRequest = header.kind == static_cast<std::uint8_t>(Kind::eREQUEST);
    auto source = makeWithBytes<HeaderSource>(header.head, block, isRequest, isRequest ? m_clientId : nullptr);
    std::copy_n(content, header.head, block);
    source->setHead(block, header.head);
    Head head;
    if (readMessageHead(header, block, head)) {
        return true;
    }
    if (header.hasMore() && !head.bodySize) {
        return fail(fmt::format("fragmented {} without a body size", name));
    }
    if (!header.hasMore() && head.bodySize) {
        return fail(fmt::format("{} of one frame declares a body size", name));
    }
    const std::uint64_t declared = head.bodySize.value_or(header.body());
    if (declared + header.head > m_limits.maxMessageBytes) {
        return fail(
            fmt::format("{} of {} bytes, more than {}", name, declared + header.head, m_limits.maxMessageBytes));
    }
    if (header.hasMore() && declared <= header.body()) {
        return fail(fmt::format("fragments of stream {} do not make the {} bytes declared", header.stream, declared));
    }
    if (header.hasMore() && m_unfinishedBytes > 0 &&
        m_unfinishedBytes + header.head + declared > m_limits.maxMessageBytes) {
        return fail(fmt::format("{} of {} bytes while others of {} are not complete, together more than {}", name,
                                declared + header.head, m_unfinishedBytes, m_limits.maxMessageBytes));
    }
    if (header.hasMore() || (isRequest && !isWhole)) {
        const auto room = m_listener.onLarge(header.stream, header.head + static_cast<std::size_t>(declared));
        if (room == IMachineListener::Room::eNONE) {
            return fail(fmt::format("{} of a stream that is {}", name, isRequest ? "in use" : "not open"));
        }
        isLater = room == IMachineListener::Room::eLATER;
        if (isLater) {
            return false;
        }
    }
    const std::size_t atOnce = m_partials.empty() ? m_largestBody : 0;
    const auto& partial = m_partials
                              .emplace(header.stream, Partial{header, head, std::move(source),
                                                              Body(static_cast<std::size_t>(declared), atOnce)})
                              .first->second;
    m_unfinishedBytes += partial.bytes();
    return false;
}

bool Input::handlePartial(const FrameHeader& header, const unsigned char* content, std::size_t size)
{
    m_current = &m_partials.at(header.stream);
    m_currentHasMore = header.hasMore();
    m_remaining = header.length - size;
    m_current->body.append(content + header.head, size - header.head);
    return m_remaining == 0 && endOfFrame();
}

bool Input::endOfFrame()
{
    Partial* const partial = std::exchange(m_current, nullptr);
    if (m_currentHasMore) {
        return false;
    }
    const auto node = m_partials.extract(partial->header.stream);
    m_unfinishedBytes -= partial->bytes();
    const unsigned char* const data = partial->body.data();
    const std::size_t size = partial->body.size();
    m_largestBody = std::max(m_largestBody, size);
    Payload payload(partial->body.take(), data, size, partial->head.mimeType);
    std::shared_ptr<HeaderSource> source =
        needsSource(partial->header, partial->head) ? std::move(partial->source) : nullptr;
    deliver(partial->header, partial->head, std::move(payload), std::move(source));
    return false;
}

void Input::deliver(const FrameHeader& header, const Head& head, Payload payload, std::shared_ptr<HeaderSource> source)
{
    const auto kind = static_cast<Kind>(header.kind);
    if (kind == Kind::eREQUEST) {
        std::string path(head.path);
        const std::size_t cost = costOf(header.head + payload.size());
        m_listener.onRequest(header.stream, header.target,
                             source == nullptr ? Request(head.command, std::move(path), std::move(payload))
                                               : Request(head.command, std::move(path), std::move(payload),
                                                         std::shared_ptr<const IHeaderSource>(std::move(source))),
                             head.isPersistent, cost);
        return;
    }
    const auto status = static_cast<unsigned short>(header.target);
    const std::size_t bytes = chargeOf(header.head + payload.size());
    Response response = source == nullptr ? Response(status, std::move(payload))
                                          : Response(status, std::move(payload),
                                                     std::shared_ptr<const IHeaderSource>(std::move(source)));
    if (kind == Kind::eNEXT) {
        m_listener.onNext(header.stream, std::move(response), bytes);
    } else {
        m_listener.onError(header.stream, std::move(response));
    }
}

bool Input::fail(std::string reason)
{
    m_hasFailed = true;
    m_reason = std::move(reason);
    m_current = nullptr;
    m_partials.clear();
    m_unfinishedBytes = 0;
    m_begin = 0;
    m_end = 0;
    return true;
}

} // namespace kesa::commadapter::protocol
