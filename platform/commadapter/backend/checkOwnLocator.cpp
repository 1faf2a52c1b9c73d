#include "backend/Locators.h"
#include "backend/readCommSettings.h"
#include "transport/IpcTransport.h"
#include "transport/NameClaim.h"
#include "transport/RunDirectory.h"
#include <rules/usersAndGroups.h>

#include <kesa/commadapter/checkOwnLocator.h>
#include <util/config/Complaint.h>

#include <fmt/format.h>

namespace kesa::commadapter {

OwnLocator checkOwnLocator(const std::string& process, const url& locator)
{
    using State = OwnLocator::State;
    const CommSettings settings = readCommSettings();
    // Only to read locators with; it never gets to use a loop.
    const std::shared_ptr<transport::ITransport> transport = transport::makeIpcTransport(
        transport::IpcSettings{settings.runDir, settings.socketMode, settings.socketGroup}, nullptr);
    const auto place = Locators(settings.routes, {transport}).find(locator);
    if (!place) {
        return {State::eUNREACHABLE, {}};
    }
    if (place->destination.endpoint.process != process) {
        return {State::eOTHERS, {}};
    }
    if (!settings.socketGroup.empty() && !access::findGroup(settings.socketGroup)) {
        return {State::eMISSET, fmt::format("there is no group \"{}\" on this machine, which \"comm\" names as its "
                                            "\"socket_group\"; make the group, or name another one",
                                            util::config::excerpt(settings.socketGroup))};
    }
    transport::RunDirectory runDirectory(settings.runDir);
    transport::Descriptor directory;
    std::string realm;
    std::string why;
    if (runDirectory.prepare(directory, realm, why)) {
        return {State::eUNUSABLE, why};
    }
    bool isHeld = false;
    if (transport::NameClaim::isRefused(directory, process, isHeld, why)) {
        return {isHeld ? State::eNAME_HELD : State::eUNUSABLE, why};
    }
    return {State::eCLAIMABLE, {}};
}

} // namespace kesa::commadapter
