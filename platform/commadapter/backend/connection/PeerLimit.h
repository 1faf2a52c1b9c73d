#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_PEERLIMIT_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_PEERLIMIT_H

#include <comm/PeerLines.h>
#include <tracing/LineLimit.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace kesa::commadapter {

/// While one lives, what its thread traces is on the account of a peer, and no line is very long: there is no end to
/// what may be in a text of a peer.
class PeerLimit final : private tracing::ILineLimit {
public:
    PeerLimit(comm::PeerLines& lines, std::int64_t pid) noexcept : m_lines(lines), m_pid(pid), m_scope(*this) {}

private:
    bool pass(std::string_view text, std::string& changed) override;

    comm::PeerLines& m_lines;
    const std::int64_t m_pid;
    const Scope m_scope;
};

} // namespace kesa::commadapter

#endif
