// Who provides a service is who registers it: a record says so by the kernel's word, whatever its sender has written
// there, and an `ipc` locator leads to him. Who is not trusted has to name one.

#include "service/RegistryImpl.h"

#include <kesa/Path.h>
#include <kesa/RequestContext.h>
#include <kesa/serviceregistry/MetainfoKeys.h>
#include <obr/visible.h>
#include <transport/Authority.h>
#include <util/percent.h>

#include <optional>
#include <tuple>

namespace kesa::registry {

namespace {

using serviceregistry::MetainfoKeys;
using serviceregistry::PROVIDER_GID;
using serviceregistry::PROVIDER_UID;
using serviceregistry::PROVIDER_UNPROVEN;
using Proof = IPeer::Name::Proof;

/// Of a locator that names another process than the one that registers it.
std::string complaintAbout(const url& locator, const std::string& process)
{
    const std::string_view authority = locator.authority();
    const std::string_view named = authority.substr(0, authority.find('+'));
    if (locator.scheme() != "ipc" || named == process || util::decodePercent(named) == process) {
        return {};
    }
    return "the locator \"" + obr::glimpse(locator.toString()) + "\" names another process than \"" +
           obr::visible(process) + "\", which registers it; a process registers its own locators";
}

/// The realm that a locator of a service names, empty for the reader's own; none when it is not well formed.
std::optional<std::string> realmOf(const url& locator)
{
    const auto endpoint = commadapter::transport::parseProcessAuthority(locator, "ipc");
    const bool isGood = endpoint && !locator.hasQueryOrFragment() &&
                        Path::isCanonical(util::decodePercent(locator.path()).value_or(std::string()));
    return isGood ? std::optional(endpoint->realm) : std::nullopt;
}

/// Of a record that leads nowhere, which would end what others have asked for: a runtime ends a subscription to the
/// services that fit a query with the first one that it has no road to.
std::string complaintAboutRoads(const ServiceDef& record, const RequestContext& peer)
{
    std::string other;
    for (const url& locator : record.locators) {
        const std::optional<std::string> realm = realmOf(locator);
        if (realm && (realm->empty() || *realm == peer.realm)) {
            return {}; // whoever is told of it is of this realm
        }
        other = realm ? *realm : other;
    }
    if (!other.empty()) {
        return "the locators of \"" + obr::glimpse(record.path.toString()) + "\" are of the realm \"" +
               obr::glimpse(other) + "\", and this registry is of \"" + obr::glimpse(peer.realm) +
               "\": the run directory or its file \"realm\" was replaced while \"" + obr::visible(peer.process) +
               "\" ran; restart this process";
    }
    return "the record has no locator that leads to \"" + obr::visible(peer.process) +
           "\" in this realm; name one, as \"" +
           commadapter::transport::Endpoint{"ipc", peer.process, peer.realm, {}}.toString() +
           obr::glimpse(record.path.toString()) + "\": only root and the registry's own user may leave it out";
}

void setProvider(GenericObject& metainfo, const RequestContext& peer, Proof proof)
{
    static const std::string& key = *new std::string(*enumToValue(MetainfoKeys::provider));
    if (!peer.process.empty()) {
        metainfo.set(key, peer.process);
    }
    metainfo.set(PROVIDER_UID, peer.uid);
    metainfo.set(PROVIDER_GID, peer.gid);
    metainfo.erase(PROVIDER_UNPROVEN);
    if (proof != Proof::ePROVEN) {
        metainfo.set(PROVIDER_UNPROVEN, true);
    }
}

/// What a process gives with one service it mostly gives with the next, too: their records then share it.
GenericObject withProvider(GenericObject&& metainfo, const RequestContext& peer, Proof proof)
{
    using Provider = std::tuple<std::string, std::int64_t, std::int64_t, Proof>;
    struct Last {
        Provider provider;
        GenericObject given;
        GenericObject made;
    };
    thread_local Last last;
    Provider provider(peer.process, peer.uid, peer.gid, proof);
    if (last.made.empty() || last.provider != provider || last.given != metainfo) {
        last = {std::move(provider), metainfo, std::move(metainfo)};
        setProvider(last.made, peer, proof);
    }
    return last.made;
}

} // namespace

bool Registry::Impl::isTrusted(const RequestContext& peer) const
{
    return peer.uid == 0 || peer.uid == m_ownUid;
}

/// Why the record is not its sender's to register, and the status of that; empty when it is. What this process itself
/// registers stays as it is.
std::string Registry::Impl::identify(ServiceDef& record, unsigned short& status) const
{
    const RequestContext* const peer = RequestContext::current();
    if (peer == nullptr) {
        return {};
    }
    status = 400;
    for (const url& locator : record.locators) {
        if (std::string why = complaintAbout(locator, peer->process); !why.empty()) {
            return why;
        }
    }
    if (std::string why = isTrusted(*peer) ? "" : complaintAboutRoads(record, *peer); !why.empty()) {
        return why;
    }
    const IPeer::Name name = peer->peer ? peer->peer->proveName() : IPeer::Name();
    if (name.proof == Proof::eDISPROVEN) {
        status = 409;
        return "process " + std::to_string(peer->pid) + " calls itself \"" + obr::visible(peer->process) +
               "\", but process " + std::to_string(name.holder) +
               " has that name; end one of them, or give it another name";
    }
    record.metainfo = withProvider(record.metainfo ? std::move(*record.metainfo) : GenericObject(), *peer, name.proof);
    return {};
}

} // namespace kesa::registry
