#include "protocol/Machine.h"

#include "protocol/Input.h"
#include "protocol/Output.h"

namespace kesa::commadapter::protocol {

Machine::Machine(Role role, const Hello& own, const Limits& limits, IMachineListener& listener, comm::TimeNs now)
    : m_shared(std::make_unique<Shared>()), m_input(std::make_unique<Input>(role, own, limits, listener, *m_shared)),
      m_output(std::make_unique<Output>(role, own, limits, *m_shared, now))
{
    m_shared->lastReceived.store(now, std::memory_order_relaxed);
}

Machine::~Machine() = default;

// ---- input half -----------------------------------------------------------------------------------------------

std::span<unsigned char> Machine::inputBuffer()
{
    return m_input->inputBuffer();
}

bool Machine::received(std::size_t size, comm::TimeNs now)
{
    return m_input->received(size, now);
}

bool Machine::readOn()
{
    return m_input->readOn();
}

const std::string& Machine::reason() const noexcept
{
    return m_input->reason();
}

void Machine::setClientId(std::string id)
{
    m_input->setClientId(std::move(id));
}

unsigned Machine::takePongsOwed() noexcept
{
    return m_shared->pongsOwed.exchange(0, std::memory_order_relaxed);
}

std::uint64_t Machine::pongs() const noexcept
{
    return m_shared->pongs;
}

// ---- holding back ---------------------------------------------------------------------------------------------

void Machine::hold() noexcept
{
    m_shared->isHeld.store(true, std::memory_order_relaxed);
}

void Machine::release() noexcept
{
    m_shared->isHeld.store(false, std::memory_order_relaxed);
}

bool Machine::isHeld() const noexcept
{
    return m_shared->isHeld.load(std::memory_order_relaxed);
}

// ---- output half ----------------------------------------------------------------------------------------------

Machine::Sent Machine::attach(std::uint32_t target, std::string_view path)
{
    return m_output->attach(target, path);
}

void Machine::attached(std::uint32_t target)
{
    m_output->queue().push(Kind::eATTACHED, 0, target);
}

void Machine::detached(std::uint32_t target)
{
    m_output->queue().push(Kind::eDETACHED, 0, target);
}

Machine::Sent Machine::request(std::uint32_t stream, std::uint32_t target, const Request& request)
{
    return m_output->request(stream, target, request);
}

Machine::Sent Machine::next(std::uint32_t stream, const Response& response, bool isPersistent)
{
    return m_output->answer(Kind::eNEXT, stream, response, isPersistent);
}

Machine::Sent Machine::tryNext(const Response& response)
{
    return m_output->tryAnswer(response);
}

const std::string& Machine::refusal() const noexcept
{
    return m_output->refusal();
}

void Machine::error(std::uint32_t stream, const Response& response)
{
    m_output->error(stream, response);
}

void Machine::completed(std::uint32_t stream)
{
    m_output->queue().push(Kind::eCOMPLETED, stream, 0);
}

Machine::Cancelled Machine::cancel(std::uint32_t stream)
{
    return m_output->cancel(stream);
}

void Machine::dropQueued(std::uint32_t stream)
{
    m_output->queue().drop(stream, Kind::eNEXT);
}

void Machine::ping()
{
    m_output->queue().push(Kind::ePING, 0, 0);
}

void Machine::pong()
{
    m_output->pong();
}

std::size_t Machine::queuedBytes() const noexcept
{
    return m_output->queue().bytes();
}

std::size_t Machine::persistentBytes() const noexcept
{
    return m_output->queue().persistentBytes();
}

std::size_t Machine::queuedBytes(std::uint32_t stream) const
{
    return m_output->queue().bytes(stream);
}

std::uint64_t Machine::queueEnd() const noexcept
{
    return m_output->queue().end();
}

bool Machine::isUnsent(std::uint32_t stream, std::uint64_t endThen)
{
    return m_output->queue().holds(stream, Kind::eREQUEST, endThen);
}

std::size_t Machine::gather(std::span<iovec> out)
{
    return m_output->queue().gather(out);
}

void Machine::sent(std::size_t size, comm::TimeNs now)
{
    m_output->sent(size, now);
}

// ---- deadlines ------------------------------------------------------------------------------------------------

void Machine::probe(comm::TimeNs now)
{
    m_output->probe(now);
}

comm::TimeNs Machine::nextDeadline() const noexcept
{
    return m_output->nextDeadline();
}

bool Machine::expired(comm::TimeNs now, std::string& why) const
{
    return m_output->expired(now, why);
}

void Machine::restartDeadlines(comm::TimeNs now)
{
    m_output->restartDeadlines(now);
}

comm::TimeNs Machine::lastReceived() const noexcept
{
    return m_shared->lastReceived.load(std::memory_order_relaxed);
}

} // namespace kesa::commadapter::protocol
