#include "backend/BackendFactory.h"
#include "backend/CommBackend.h"
#include "backend/connection/channel.h"
#include "backend/readCommSettings.h"
#include "transport/IpcTransport.h"

#include <gates/readAccess.h>
#include <kesa/commadapter/createBackend.h>

#include <unistd.h>

namespace kesa::commadapter {

namespace {

BackendFactory& replacement()
{
    static auto& factory = *new BackendFactory();
    return factory;
}

std::uint32_t& defaultMessageLimit()
{
    static std::uint32_t bytes = CommSettings().maxMessageBytes;
    return bytes;
}

CommSettings readSettings()
{
    std::vector<std::string> complaints;
    CommSettings defaults;
    defaults.maxMessageBytes = defaultMessageLimit();
    CommSettings settings = readCommSettings(&complaints, defaults);
    for (const std::string& complaint : complaints) {
        CHANNEL.log(3, "[createBackend] " + complaint);
    }
    return settings;
}

std::shared_ptr<access::Table> readTable()
{
    access::ReadAccess read = access::readAccess(::geteuid());
    for (const std::string& warning : read.warnings) {
        CHANNEL.log(3, "[createBackend] " + warning);
    }
    if (!read.problem.empty()) {
        CHANNEL.log(4, "[createBackend] the services of this process are closed to other users: " + read.problem);
    }
    return std::move(read.table);
}

} // namespace

std::unique_ptr<IBackend> createBackend(const std::string& process, const std::string& partition)
{
    if (replacement()) {
        return replacement()(process, partition);
    }
    const CommSettings settings = readSettings();
    const auto makeTransports = [settings](const std::shared_ptr<comm::Reactor>& loop) {
        std::vector<std::unique_ptr<transport::ITransport>> transports;
        transports.push_back(transport::makeIpcTransport(
            transport::IpcSettings{settings.runDir, settings.socketMode, settings.socketGroup}, loop));
        return transports;
    };
    return makeCommBackend(process, settings, makeTransports, readTable());
}

void setDefaultMessageLimit(std::uint32_t bytes)
{
    defaultMessageLimit() = bytes;
}

void setBackendFactory(BackendFactory factory)
{
    replacement() = std::move(factory);
}

} // namespace kesa::commadapter
