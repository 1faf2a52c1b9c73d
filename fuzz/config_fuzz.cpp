// Any text as a configuration document: the record always holds what the rest of the runtime relies on.
#include <runtime/v02/config/ConfigReport.h>
#include <runtime/v02/config/KesaConfig.h>
#include <runtime/v02/config/reviewDocument.h>
#include <tracing/Sink.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    using namespace kesa::runtime::v02;
    static const bool isQuiet = (tracing::setThreshold("*", 5), true);
    ConfigReport report;
    const KesaConfig config("process", std::string(reinterpret_cast<const char*>(data), size), &report);
    reviewDocument(report);
    const bool isSound = isQuiet && !config.m_backends.empty() && config.m_serializers.count("*") == 1 &&
                         (config.m_valid || report.firstError() != nullptr) &&
                         (config.m_valid || config.m_services.empty());
    if (!isSound) {
        std::abort();
    }
    return 0;
}
