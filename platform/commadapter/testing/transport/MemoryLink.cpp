// A stream is two queues of chunks, each with the time at which it arrives. Whatever changes an end (bytes, the end,
// room for a writer) queues one look at it on the loop of its owner; the look calls the listener and queues the next
// one as long as there is something to tell, as a level-triggered descriptor would.

#include "transport/MemoryLink.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace kesa::commadapter::transport::memory {

namespace {

enum class News { eNONE, eREADABLE, eWRITABLE, ePEER_EXITED };

std::size_t arrivedBytes(const End& end, comm::TimeNs now)
{
    std::size_t bytes = 0;
    for (const End::Chunk& chunk : end.chunks) {
        if (chunk.arrival > now) {
            break;
        }
        bytes += chunk.bytes.size();
    }
    return bytes > end.taken ? bytes - end.taken : 0;
}

bool isEndReached(const End& end, comm::TimeNs now)
{
    return end.isOver && end.chunks.empty() && end.lastArrival <= now;
}

std::size_t room(const Streams& streams, const End& receiver)
{
    return receiver.unread < streams.faults.pipeBytes ? streams.faults.pipeBytes - receiver.unread : 0;
}

News nextNews(const Streams& streams, const Link& link, std::size_t side, comm::TimeNs now)
{
    const End& end = link.ends[side];
    if (end.isClosed || end.listener == nullptr) {
        return News::eNONE;
    }
    const bool isReadable = end.isReading && (arrivedBytes(end, now) > 0 || (isEndReached(end, now) && !end.isEndRead));
    const bool isWritable = end.wantsWrite && (end.isOver || room(streams, link.ends[1 - side]) > 0);
    if (isWritable && !(isReadable && end.isOver && streams.faults.isEndReadFirst)) {
        return News::eWRITABLE;
    }
    if (isReadable) {
        return News::eREADABLE;
    }
    return end.isPeerGone && (end.chunks.empty() || !end.isReading) ? News::ePEER_EXITED : News::eNONE;
}

void look(const std::weak_ptr<Streams>& weakStreams, const std::weak_ptr<Link>& weakLink, std::size_t side);

/// On the loop of the end: comes back now or when the next bytes arrive.
void lookAgain(const std::shared_ptr<Streams>& streams, const std::shared_ptr<Link>& link, std::size_t side)
{
    End& end = link->ends[side];
    const comm::TimeNs now = comm::now();
    if (nextNews(*streams, *link, side, now) != News::eNONE) {
        wake(streams, link, side);
        return;
    }
    const bool isEndComing = end.isOver && !end.isEndRead && end.chunks.empty();
    if (end.isClosed || end.hasTimer || !end.isReading || (end.chunks.empty() && !isEndComing)) {
        return;
    }
    if (const auto loop = end.loop.lock()) {
        end.hasTimer = true;
        loop->startTimer(end.chunks.empty() ? end.lastArrival : end.chunks.front().arrival,
                         [weakStreams = std::weak_ptr(streams), weakLink = std::weak_ptr(link), side] {
                             if (const auto held = weakLink.lock()) {
                                 held->ends[side].hasTimer = false; // only its loop uses this member
                             }
                             look(weakStreams, weakLink, side);
                         });
    }
}

void look(const std::weak_ptr<Streams>& weakStreams, const std::weak_ptr<Link>& weakLink, std::size_t side)
{
    const auto streams = weakStreams.lock();
    const auto link = weakLink.lock();
    if (!streams || !link) {
        return;
    }
    End& end = link->ends[side];
    std::unique_lock lock(streams->lock);
    end.isWoken = false;
    const News news = nextNews(*streams, *link, side, comm::now());
    IStreamListener* const listener = end.listener;
    if (news == News::eWRITABLE) {
        end.wantsWrite = false;
    } else if (news == News::ePEER_EXITED) {
        end.isPeerGone = false;
    }
    lock.unlock();
    switch (news) {
    case News::eREADABLE:
        listener->onReadable();
        break;
    case News::eWRITABLE:
        listener->onWritable();
        break;
    case News::ePEER_EXITED:
        listener->onPeerExited();
        break;
    case News::eNONE:
        break;
    }
    lock.lock();
    lookAgain(streams, link, side);
}

/// When something sent now arrives.
comm::TimeNs arrivalTime(const Streams& streams, End& receiver)
{
    const auto delay =
        streams.faults.longestDelay > 0
            ? static_cast<comm::TimeNs>(streams.draw(static_cast<std::uint64_t>(streams.faults.longestDelay) + 1))
            : 0;
    receiver.lastArrival = std::max(receiver.lastArrival, comm::now() + delay);
    return receiver.lastArrival;
}

void endOf(const Streams& streams, End& receiver, const std::string& reason)
{
    if (!receiver.isOver && !receiver.isClosed) { // whoever has read the end reads the reason without the lock
        receiver.isOver = true;
        receiver.reason = reason;
        arrivalTime(streams, receiver);
    }
}

void keepFirst(End& end, std::size_t bytes)
{
    end.unread = bytes;
    std::size_t kept = 0;
    std::deque<End::Chunk> chunks;
    for (End::Chunk& chunk : end.chunks) {
        const std::size_t wanted = bytes + end.taken - kept;
        chunk.bytes.resize(std::min(chunk.bytes.size(), wanted));
        if (chunk.bytes.empty()) {
            break;
        }
        kept += chunk.bytes.size();
        chunks.push_back(std::move(chunk));
    }
    if (bytes == 0) {
        chunks.clear();
        end.taken = 0;
    }
    end.chunks = std::move(chunks);
}

/// The instance in a hello; empty when there is none.
std::string_view instanceIn(std::string_view bytes)
{
    constexpr std::string_view KEY = "\x14\x50"; // 20, and that 16 bytes follow
    const std::size_t key = bytes.find(KEY);
    return key == std::string_view::npos ? std::string_view() : bytes.substr(key + KEY.size(), 16);
}

/// What a group that repeats another one's instance writes first says so; `hello` is all that it has to write.
void speakFor(Streams& streams, std::uint64_t group, std::string& hello)
{
    const std::string_view own = instanceIn(hello);
    streams.instances[group] = own;
    const auto repeated = streams.repeated.find(group);
    const auto other =
        repeated == streams.repeated.end() ? streams.instances.end() : streams.instances.find(repeated->second);
    if (other != streams.instances.end() && other->second.size() == own.size()) {
        hello.replace(static_cast<std::size_t>(own.data() - hello.data()), own.size(), other->second);
    }
}

class MemoryStream final : public IStream {
public:
    MemoryStream(std::shared_ptr<Streams> streams, std::shared_ptr<Link> link, std::size_t side)
        : m_streams(std::move(streams)), m_link(std::move(link)), m_side(side)
    {
        m_peer = identityOf(*m_streams, other().group);
    }
    ~MemoryStream() override { close(); }
    MemoryStream(const MemoryStream&) = delete;
    MemoryStream& operator=(const MemoryStream&) = delete;

    void start(IStreamListener& listener) override
    {
        const std::lock_guard lock(m_streams->lock);
        if (!own().isClosed) {
            own().listener = &listener;
            wake(m_streams, m_link, m_side);
        }
    }

    Result read(std::span<unsigned char> into, std::size_t& size) override;
    Result write(std::span<const iovec> from, std::size_t& size) override;

    void setReading(bool isOn) override
    {
        const std::lock_guard lock(m_streams->lock);
        own().isReading = isOn;
        wake(m_streams, m_link, m_side);
    }

    void wantWrite() override
    {
        const std::lock_guard lock(m_streams->lock);
        own().wantsWrite = true;
        wake(m_streams, m_link, m_side);
    }

    void close() override
    {
        const std::lock_guard lock(m_streams->lock);
        closeEnd(m_streams, m_link, m_side, "the peer closed the connection");
    }

    Process process() const override;
    std::size_t unread() const override
    {
        const std::lock_guard lock(m_streams->lock);
        return m_link->ends[m_side].unread;
    }
    const PeerIdentity& peer() const noexcept override { return m_peer; }
    const std::string& reason() const noexcept override { return m_link->ends[m_side].reason; }

private:
    End& own() { return m_link->ends[m_side]; }
    End& other() { return m_link->ends[1 - m_side]; }

    const std::shared_ptr<Streams> m_streams;
    const std::shared_ptr<Link> m_link;
    const std::size_t m_side;
    PeerIdentity m_peer;
};

/// A death is no news before what was written before it: what is on its way still may be anything.
IStream::Process MemoryStream::process() const
{
    const std::lock_guard lock(m_streams->lock);
    const End& end = m_link->ends[m_side];
    if (!end.hasPeerEnded) {
        return end.isOver ? Process::eUNKNOWN : Process::eLIVES;
    }
    return arrivedBytes(end, comm::now()) == end.unread ? Process::eENDED : Process::eUNKNOWN;
}

IStream::Result MemoryStream::read(std::span<unsigned char> into, std::size_t& size)
{
    const std::lock_guard lock(m_streams->lock);
    End& end = own();
    const comm::TimeNs now = comm::now();
    const std::size_t arrived = arrivedBytes(end, now);
    size = 0;
    if (end.isClosed || (arrived == 0 && isEndReached(end, now))) {
        end.isEndRead = true;
        return Result::eENDED;
    }
    std::size_t wanted = std::min(into.size(), arrived);
    if (wanted == 0) {
        return Result::eWOULD_BLOCK;
    }
    if (m_streams->happens(m_streams->faults.shortReadPercent)) {
        wanted = 1 + static_cast<std::size_t>(m_streams->draw(wanted));
    }
    while (size < wanted) {
        const std::string& bytes = end.chunks.front().bytes;
        const std::size_t count = std::min(bytes.size() - end.taken, wanted - size);
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(end.taken), count,
                    into.begin() + static_cast<std::ptrdiff_t>(size));
        size += count;
        end.taken += count;
        if (end.taken == bytes.size()) {
            end.chunks.pop_front();
            end.taken = 0;
        }
    }
    end.unread -= size;
    if (other().wantsWrite) {
        wake(m_streams, m_link, 1 - m_side);
    }
    return Result::eDONE;
}

IStream::Result MemoryStream::write(std::span<const iovec> from, std::size_t& size)
{
    const std::lock_guard lock(m_streams->lock);
    size = 0;
    if (own().isClosed || own().isOver) {
        return Result::eENDED;
    }
    std::size_t wanted = 0;
    for (const iovec& part : from) {
        wanted += part.iov_len;
    }
    wanted = std::min(wanted, room(*m_streams, other()));
    if (wanted == 0) {
        return Result::eWOULD_BLOCK;
    }
    const bool isHello = !std::exchange(own().hasWritten, true);
    const bool isLie = isHello && m_streams->repeated.count(own().group) != 0; // which is written in one
    if (m_streams->happens(m_streams->faults.shortWritePercent) && !isLie) {
        wanted = 1 + static_cast<std::size_t>(m_streams->draw(wanted));
    }
    std::string bytes;
    for (const iovec& part : from) {
        bytes.append(static_cast<const char*>(part.iov_base), part.iov_len);
    }
    if (isHello) {
        speakFor(*m_streams, own().group, bytes);
    }
    bytes.resize(wanted);
    size = wanted;
    other().unread += wanted;
    const comm::TimeNs arrival = arrivalTime(*m_streams, other());
    other().chunks.push_back({arrival, std::move(bytes)});
    wake(m_streams, m_link, 1 - m_side);
    return Result::eDONE;
}

} // namespace

PeerIdentity identityOf(const Streams& streams, std::uint64_t group)
{
    const auto deaths = streams.deaths.find(group);
    PeerIdentity identity;
    identity.pid = static_cast<std::int64_t>(group);
    const auto user = streams.users.find(group);
    identity.uid = user == streams.users.end() ? 0 : user->second;
    identity.gid = 0;
    identity.start = 1 + (deaths == streams.deaths.end() ? 0 : deaths->second);
    return identity;
}

std::unique_ptr<IStream> makeStream(std::shared_ptr<Streams> streams, std::shared_ptr<Link> link, std::size_t side)
{
    return std::make_unique<MemoryStream>(std::move(streams), std::move(link), side);
}

void wake(const std::shared_ptr<Streams>& streams, const std::shared_ptr<Link>& link, std::size_t side)
{
    End& end = link->ends[side];
    if (end.isWoken || end.isClosed || end.listener == nullptr) {
        return;
    }
    if (const auto loop = end.loop.lock()) {
        end.isWoken = true;
        // Under the lock: a task that is dropped lets go of nothing but these weak references.
        loop->post([weakStreams = std::weak_ptr(streams), weakLink = std::weak_ptr(link), side] {
            look(weakStreams, weakLink, side);
        });
    }
}

void closeEnd(const std::shared_ptr<Streams>& streams, const std::shared_ptr<Link>& link, std::size_t side,
              const std::string& reason, bool isHeldOpen)
{
    End& end = link->ends[side];
    End& other = link->ends[1 - side];
    if (end.isClosed) {
        return;
    }
    end.isClosed = true;
    end.listener = nullptr;
    if (!isHeldOpen) {
        keepFirst(end, 0);
        endOf(*streams, other, reason);
    }
    wake(streams, link, 1 - side);
    if (other.isClosed) {
        std::erase(streams->links, link);
    }
}

void cutLink(const std::shared_ptr<Streams>& streams, const std::shared_ptr<Link>& link)
{
    for (std::size_t side = 0; side < link->ends.size(); ++side) {
        End& end = link->ends[side];
        if (streams->faults.draw) {
            keepFirst(end, static_cast<std::size_t>(streams->draw(end.unread + 1)));
        }
        endOf(*streams, end, "the connection was cut");
        wake(streams, link, side);
    }
}

} // namespace kesa::commadapter::transport::memory
