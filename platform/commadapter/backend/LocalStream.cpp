#include "backend/LocalStream.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <vector>

namespace kesa::commadapter {

namespace {

constexpr std::size_t PIPE_BYTES = 256U << 10U; // about what a socket holds

/// One end's inbox, and what its listener has been promised.
struct LocalEnd {
    std::vector<unsigned char> bytes; ///< from `taken` on
    std::size_t taken = 0;
    transport::IStreamListener* listener = nullptr;
    bool wantsWrite = false;
    bool isReading = true;
    bool isClosed = false;
    bool isPosted = false; ///< a look at it is in the loop's queue

    std::size_t unread() const noexcept { return bytes.size() - taken; }
};

struct LocalLink : std::enable_shared_from_this<LocalLink> {
    explicit LocalLink(std::shared_ptr<comm::Reactor> reactor) : loop(std::move(reactor)) {}

    const std::shared_ptr<comm::Reactor> loop;
    std::mutex lock; ///< of `ends`: written and closed in any thread, read on the loop
    std::array<LocalEnd, 2> ends;

    bool isReadable(std::size_t side) const noexcept
    {
        return ends[side].isReading && (ends[side].unread() > 0 || ends[1 - side].isClosed);
    }
    bool isWritable(std::size_t side) const noexcept
    {
        return ends[1 - side].isClosed || ends[1 - side].unread() < PIPE_BYTES;
    }
    /// With the lock held.
    void notify(std::size_t side)
    {
        LocalEnd& end = ends[side];
        const bool hasNews = isReadable(side) || (end.wantsWrite && isWritable(side));
        if (end.listener != nullptr && !end.isClosed && !end.isPosted && hasNews) {
            end.isPosted = true;
            loop->post([self = shared_from_this(), side] { self->look(side); });
        }
    }
    void look(std::size_t side)
    {
        std::unique_lock held(lock);
        LocalEnd& end = ends[side];
        end.isPosted = false;
        if (end.isClosed || end.listener == nullptr) {
            return;
        }
        transport::IStreamListener* const listener = end.listener;
        if (end.wantsWrite && isWritable(side)) {
            end.wantsWrite = false;
            held.unlock();
            listener->onWritable();
        } else if (isReadable(side)) {
            held.unlock();
            listener->onReadable();
        }
        if (!held.owns_lock()) {
            held.lock();
        }
        notify(side);
    }
};

class LocalStream final : public transport::IStream {
public:
    LocalStream(std::shared_ptr<LocalLink> link, std::size_t side) : m_link(std::move(link)), m_side(side)
    {
        m_peer.pid = getpid();
        m_peer.uid = getuid();
        m_peer.gid = getgid();
    }
    ~LocalStream() override { close(); }
    LocalStream(const LocalStream&) = delete;
    LocalStream& operator=(const LocalStream&) = delete;

    void start(transport::IStreamListener& listener) override
    {
        const std::lock_guard lock(m_link->lock);
        own().listener = &listener;
        m_link->notify(m_side);
    }

    Result read(std::span<unsigned char> into, std::size_t& size) override
    {
        const std::lock_guard lock(m_link->lock);
        LocalEnd& end = own();
        size = std::min(into.size(), end.unread());
        if (size == 0) {
            return other().isClosed ? Result::eENDED : Result::eWOULD_BLOCK;
        }
        std::copy_n(end.bytes.begin() + static_cast<std::ptrdiff_t>(end.taken), size, into.begin());
        end.taken += size;
        if (end.taken == end.bytes.size()) {
            end.bytes.clear();
            end.taken = 0;
        }
        m_link->notify(1 - m_side); // it may wait for room
        return Result::eDONE;
    }

    Result write(std::span<const iovec> from, std::size_t& size) override
    {
        const std::lock_guard lock(m_link->lock);
        LocalEnd& inbox = other();
        size = 0;
        if (inbox.isClosed || own().isClosed) {
            return Result::eENDED;
        }
        if (inbox.taken > 0 && inbox.bytes.size() >= PIPE_BYTES) {
            inbox.bytes.erase(inbox.bytes.begin(), inbox.bytes.begin() + static_cast<std::ptrdiff_t>(inbox.taken));
            inbox.taken = 0;
        }
        for (const iovec& part : from) {
            const std::size_t count = std::min(part.iov_len, PIPE_BYTES - std::min(PIPE_BYTES, inbox.unread()));
            const auto* const begin = static_cast<const unsigned char*>(part.iov_base);
            inbox.bytes.insert(inbox.bytes.end(), begin, begin + count);
            size += count;
        }
        if (size == 0) {
            return Result::eWOULD_BLOCK;
        }
        m_link->notify(1 - m_side);
        return Result::eDONE;
    }

    void setReading(bool isOn) override
    {
        const std::lock_guard lock(m_link->lock);
        own().isReading = isOn;
        m_link->notify(m_side);
    }

    void wantWrite() override
    {
        const std::lock_guard lock(m_link->lock);
        own().wantsWrite = true;
        m_link->notify(m_side);
    }

    void close() override
    {
        const std::lock_guard lock(m_link->lock);
        own().isClosed = true;
        own().listener = nullptr;
        m_link->notify(1 - m_side);
    }

    Process process() const override { return Process::eLIVES; }
    std::size_t unread() const override
    {
        const std::lock_guard lock(m_link->lock);
        return m_link->ends[m_side].unread();
    }
    const transport::PeerIdentity& peer() const noexcept override { return m_peer; }
    const std::string& reason() const noexcept override { return m_reason; }

private:
    LocalEnd& own() { return m_link->ends[m_side]; }
    LocalEnd& other() { return m_link->ends[1 - m_side]; }

    const std::shared_ptr<LocalLink> m_link;
    const std::size_t m_side;
    transport::PeerIdentity m_peer;
    const std::string m_reason = "the other end in this process was closed";
};

} // namespace

std::pair<std::unique_ptr<transport::IStream>, std::unique_ptr<transport::IStream>>
makeLocalStreams(const std::shared_ptr<comm::Reactor>& loop)
{
    const auto link = std::make_shared<LocalLink>(loop);
    return {std::make_unique<LocalStream>(link, 0), std::make_unique<LocalStream>(link, 1)};
}

} // namespace kesa::commadapter
