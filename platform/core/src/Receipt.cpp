#include <kesa/Receipt.h>

#include <utility>

namespace kesa {

namespace {

thread_local Receipt::Scope* current = nullptr;

} // namespace

Receipt::Receipt(std::weak_ptr<IIssuer> issuer, std::uint64_t request, std::size_t bytes) noexcept
    : m_issuer(std::move(issuer)), m_request(request), m_bytes(bytes)
{}

Receipt::Receipt(Receipt&& other) noexcept
    : m_issuer(std::move(other.m_issuer)), m_request(other.m_request), m_bytes(std::exchange(other.m_bytes, 0))
{}

Receipt::~Receipt()
{
    if (m_bytes == 0) {
        return;
    }
    if (const auto issuer = m_issuer.lock()) {
        issuer->handled(m_request, m_bytes);
    }
}

Receipt Receipt::take() noexcept
{
    return current == nullptr ? Receipt() : Receipt(std::move(current->m_receipt));
}

Receipt::Scope::Scope(Receipt&& receipt) noexcept : m_receipt(std::move(receipt)), m_outer(std::exchange(current, this))
{}

Receipt::Scope::~Scope()
{
    current = m_outer;
}

} // namespace kesa
