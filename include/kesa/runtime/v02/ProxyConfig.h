#ifndef KESA_RUNTIME_V02_PROXYCONFIG_H
#define KESA_RUNTIME_V02_PROXYCONFIG_H

#include <kesa/optional.h>

#include <cstdint>
#include <vector>

namespace kesa::runtime::v02 {

/// The "smartProxy" settings of the document. The runtime does not use them itself; it offers them to the process.
struct ProxyConfig {
    optional<std::int32_t> m_timeout;
    optional<std::vector<std::uint32_t>> m_retryTimes;
    optional<std::vector<std::uint32_t>> m_mandatoryForwardErrors;
    optional<std::vector<std::uint32_t>> m_mandatroyRetryErrorsSubscribeList;
    optional<std::vector<std::uint32_t>> m_mandatroyRetryErrorsSubscribeElement;
};

} // namespace kesa::runtime::v02

#endif
