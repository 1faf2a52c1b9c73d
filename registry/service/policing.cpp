// What the policy says of those who ask: whether they may register, what they may see, and what becomes of both when
// it changes.

#include "service/RegistryImpl.h"
#include "service/channel.h"

#include <kesa/Response.h>
#include <kesa/headers.h>
#include <obr/visible.h>
#include <rules/systemAccounts.h>

#include <fmt/format.h>

#include <algorithm>

namespace kesa::registry {

/// Empty when it has not proven it. On the loop of the peer, or without the mutex.
std::string Registry::Impl::provenName(IPeer* peer, const std::string& process)
{
    return peer != nullptr && peer->proveName().proof == IPeer::Name::Proof::ePROVEN ? process : std::string();
}

/// Of who asks without a request that stays.
PermitPtr Registry::Impl::permitOf(const RequestContext* context) const
{
    if (context == nullptr) {
        return nullptr;
    }
    return m_policy->permitOf({context->uid, context->gid,
                               m_policy->asksForProcess() ? provenName(context->peer.get(), context->process) : ""});
}

access::Identity Registry::Impl::identityOf(const Asker& asker) const
{
    return {asker.uid, asker.gid, m_policy->asksForProcess() ? asker.proven : std::string()};
}

/// What this process asks itself is always allowed.
void Registry::Impl::admit(Asker& asker) const
{
    asker.permit = asker.isOwn() ? nullptr : m_policy->permitOf(identityOf(asker));
}

/// Empty when he may.
std::string Registry::Impl::whyMayNotRegister(const Asker& asker, const std::string& path)
{
    return !asker.permit || asker.permit->mayRegister(path)
               ? std::string()
               : m_policy->judge(identityOf(asker), Right::eREGISTER, path).because;
}

void Registry::Impl::forbid(const Asker& asker, IResponseHandler<ServiceDef>& handler, const std::string& path,
                            const std::string& why)
{
    if (const auto end = m_forbidden.pass(asker.uid, asker.pid, asker.owner.start, comm::now())) {
        KESA_TRACE(CHANNEL, 3, "[registerService] '%s' of %s is refused: %s; its further refusals are not traced%s",
                   obr::glimpse(path).c_str(), obr::glimpse(asker.name()).c_str(), why.c_str(), end->c_str());
    }
    Response error = Response::createErrorResponse(403, "not allowed to register this service");
    headers::appendReason(error, why);
    handler.onError(error);
}

/// Of those who are here, for a policy that is about to ask for names. Who comes meanwhile proves his.
void Registry::Impl::proveNames()
{
    std::vector<std::shared_ptr<Asker>> askers;
    {
        const std::lock_guard lock(m_mutex);
        m_needsNames = true;
        for (const auto& [key, asker] : m_askers) {
            if (asker->peer && asker->proven.empty()) {
                askers.push_back(asker);
            }
        }
    }
    for (const auto& asker : askers) {
        std::string name = provenName(asker->peer.get(), asker->process);
        const std::lock_guard lock(m_mutex);
        asker->proven = std::move(name);
    }
}

void Registry::Impl::setPolicy(std::shared_ptr<Policy> policy)
{
    if (policy->asksForProcess()) {
        proveNames();
    }
    turn([&] {
        m_needsNames = policy->asksForProcess();
        m_policy = std::move(policy);
        m_policyRead = wallClockMs();
        m_policyProblem.clear();
        for (const auto& [key, asker] : m_askers) {
            admit(*asker);
        }
        m_forbidden.forget();
        Watchers::Sights sights;
        std::vector<StreamId> registrations;
        for (const auto& [stream, request] : m_requests) {
            if (std::holds_alternative<RegistrationHandler>(request.handler)) {
                registrations.push_back(stream);
            } else if (!request.asker->isOwn()) {
                sights.emplace(stream, request.asker->permit);
            }
        }
        const std::vector<RecordPtr> otherwise = m_store.seenOtherwise(sights);
        cutOffCostliest(otherwise.size());
        m_store.changeSights(sights, otherwise);
        // Claims first, or one of them would get a path for the moment until it ends. Of the others, one that would get
        // its path back has ended before.
        std::sort(registrations.begin(), registrations.end());
        std::stable_partition(registrations.begin(), registrations.end(),
                              [this](StreamId stream) { return !m_store.holds(stream); });
        for (const StreamId stream : registrations) {
            endIfForbidden(stream);
        }
    });
}

/// Holding so many records against all that is asked for would take too long: who asks for the most goes, user by user,
/// and asks anew.
void Registry::Impl::cutOffCostliest(std::size_t records)
{
    while (records > 0 && m_accounts.steps() > MAX_RELOAD_STEPS / records) {
        const Asker* costliest = nullptr;
        for (const auto& [key, asker] : m_askers) {
            if (asker->peer &&
                (costliest == nullptr || m_accounts.steps(asker->payer) > m_accounts.steps(costliest->payer))) {
                costliest = asker.get();
            }
        }
        if (costliest == nullptr || m_accounts.steps(costliest->payer) == 0) {
            return;
        }
        cutOffQueries(costliest->uid,
                      fmt::format("the policy was read again, and what its user asks for takes too long "
                                  "to be held against {} services: up to {} steps of matching for each",
                                  records, m_accounts.steps(costliest->payer)));
    }
}

/// Whoever of the user has some.
void Registry::Impl::cutOffQueries(std::int64_t uid, const std::string& why)
{
    for (auto next = m_requests.begin(); next != m_requests.end();) {
        const auto request = next++;
        Asker& asker = *request->second.asker;
        if (!asker.peer || asker.uid != uid || !std::holds_alternative<QueryHandler>(request->second.handler)) {
            continue;
        }
        if (!asker.isCutOff) {
            cutOff(asker, why);
        }
        m_store.end(request->first);
        m_dead.push_back(take(request));
    }
}

void Registry::Impl::keepPolicy(std::string problem)
{
    const std::lock_guard lock(m_mutex);
    m_policyProblem = std::move(problem);
    m_policyFailed = wallClockMs();
}

/// Why a reading failed is told to root and the registry's user: it quotes the document.
GenericObject Registry::Impl::describePolicy(const RequestContext* context) const
{
    GenericObject policy{{"text", m_policy->summary()}, {"hasRules", m_policy->hasRules()}, {"uid", m_ownUid}};
    if (m_policyRead != 0) {
        policy.set("read", m_policyRead);
    }
    if (!m_policyProblem.empty()) {
        GenericObject failed{{"when", m_policyFailed}};
        if (context == nullptr || isTrusted(*context)) {
            failed.set("reason", m_policyProblem);
        }
        policy.set("failed", std::move(failed));
    }
    return policy;
}

void Registry::Impl::endIfForbidden(StreamId stream)
{
    const auto request = m_requests.find(stream);
    if (request == m_requests.end()) {
        return; // the handler of another one has cancelled it
    }
    const std::string path = m_store.pathOf(stream);
    const std::shared_ptr<Asker> asker = request->second.asker;
    const std::string why = path.empty() ? path : whyMayNotRegister(*asker, path);
    if (why.empty()) {
        return;
    }
    m_dead.push_back(take(request));
    if (const RecordPtr gone = m_store.end(stream)) {
        noteEnd(m_dead.back(), *gone, History::Event::What::eFORBIDDEN,
                "the policy, read again, did not allow it any more");
    }
    forbid(*asker, *std::get<RegistrationHandler>(m_dead.back().handler), path, why);
}

/// Those that `who` stands for: a number or name of a user, or the name of a process, as it is here now.
std::vector<access::Identity> Registry::Impl::identitiesOf(const std::string& who, bool mayLookUp) const
{
    std::vector<access::Identity> identities;
    for (const auto& [key, asker] : m_askers) {
        if (asker->process == who && !asker->isOwn()) {
            const bool isOnLoop = RequestContext::current() != nullptr;
            const access::Identity identity{asker->uid, asker->gid,
                                            isOnLoop ? provenName(asker->peer.get(), asker->process) : asker->proven};
            if (std::find(identities.begin(), identities.end(), identity) == identities.end()) {
                identities.push_back(identity);
            }
        }
    }
    if (!identities.empty() || !mayLookUp) {
        return identities;
    }
    const access::IAccounts& accounts = access::systemAccounts();
    if (const auto user = accounts.findUser(who)) {
        return {{*user, accounts.groupOf(*user), {}}};
    }
    return {};
}

/// For root, the registry's user, and who asks for himself; undefined for others.
util::config::Value Registry::Impl::describeMay(const std::string& path, const std::string& who,
                                                const Store::Held* held) const
{
    const RequestContext* const context = RequestContext::current();
    util::config::Value::Array may;
    const bool mayKnowAll = context == nullptr || isTrusted(*context);
    std::vector<access::Identity> identities = identitiesOf(who, mayKnowAll); // a look-up may take long
    if (!mayKnowAll) {
        std::erase_if(identities, [context](const access::Identity& each) { return each.uid != context->uid; });
        if (identities.empty() && (who == std::to_string(context->uid) || who == m_policy->userName(context->uid))) {
            identities = {{context->uid, context->gid, {}}};
        }
    }
    for (const access::Identity& identity : identities) {
        GenericObject object{{"who", m_policy->describe(identity)}, {"uid", identity.uid}};
        for (const Right right : {Right::eREGISTER, Right::eSEE}) {
            const Policy::Verdict verdict =
                m_policy->judge(identity, right, path, held == nullptr ? nullptr : held->record.get());
            object.set(nameOf(right), GenericObject{{"allowed", verdict.isAllowed}, {"because", verdict.because}});
        }
        may.emplace_back(std::move(object));
    }
    return may.empty() && !mayKnowAll ? util::config::Value() : util::config::Value(std::move(may));
}

} // namespace kesa::registry
