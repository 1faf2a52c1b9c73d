// Persistent streams whose services give values faster than their askers handle them, through small windows and queues.

#include "Run.h"

#include <kesa/responsesemantics.h>

namespace kesa::sim {

namespace {

constexpr std::size_t QUEUE_OF_FEEDS = 64U << 10U;

} // namespace

/// What is under way beyond the queue: what the stream holds, and the values that are partly in it. Some runs have
/// values in fragments.
void Run::narrow(commadapter::CommSettings& settings, std::size_t pipeBytes)
{
    FeedBounds bounds;
    m_hasFragments = oneIn(4);
    bounds.largest *= m_hasFragments ? 20 : 1;
    settings.sendQueueBytes = m_hasFragments ? 5 * QUEUE_OF_FEEDS : QUEUE_OF_FEEDS;
    if (m_hasFragments && oneIn(2)) {
        settings.streamWindow = 1U << 20U; // so that values wait behind larger ones, and not for credit
    }
    if (!m_options.threads) {
        bounds.queue = settings.sendQueueBytes;
        bounds.beyond = 2 * pipeBytes + 4 * bounds.largest;
    }
    m_world.boundFeeds(bounds);
}

void Run::feed(Process& process)
{
    std::erase_if(m_feeds, [](const Fed& fed) { return fed.process->group != fed.group; });
    const auto choice = draw(9);
    if (choice < 3) {
        openFeed(process);
    } else if (choice < 6) {
        for (std::uint64_t count = draw(4); count > 0 && !process.services.empty(); --count) {
            pick(process.services)->answerOne();
        }
    } else if (choice < 7) {
        m_world.handleFeeds(process.group, draw(20));
    } else if (!m_feeds.empty()) {
        cancelFeed(pick(m_feeds));
    }
}

void Run::openFeed(Process& process)
{
    Process& provider = *pick(m_world.processes());
    if (!provider.isRunning() || provider.isRegistry) { // which has other settings
        return;
    }
    if (const Client client = reach(process, provider); client && process.isRunning()) {
        Wish wish = oneIn(4) ? someWish() : Wish();
        wish.resource = Wish::FEED;
        wish.semantic = responsesemantics::PERSISTENT_STREAM;
        wish.policy =
            pick(std::vector{QueuePolicy::eCUT_STREAM, QueuePolicy::eKEEP_LATEST, QueuePolicy::eCUT_CONNECTION});
        wish.isSlow = !oneIn(3);
        wish.bodyBytes = oneIn(6) ? draw(m_hasFragments ? 200'000 : 6000) : 0;
        Fed fed{&process, process.group, client, m_world.issue(process, client, wish)};
        fed.issued.client.reset();
        m_feeds.push_back(std::move(fed));
    }
}

void Run::cancelFeed(const Fed& fed)
{
    World::Issued issued = fed.issued;
    issued.client = fed.client.lock();
    if (issued.client && fed.process->isRunning()) {
        m_world.cancel(issued);
    }
}

} // namespace kesa::sim
