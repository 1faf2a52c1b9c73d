#ifndef KESA_TESTS_ACTOR_COMPLAINTABOUT_H
#define KESA_TESTS_ACTOR_COMPLAINTABOUT_H

#include <string>
#include <vector>

namespace kesa::actor {

/// The first of the events that an actor may not have told where it did; empty when there is none. "connected" and
/// "lost" take turns, each request has values only between its issue and its one end, and ends before the next
/// connection; nothing is "broken".
std::string complaintAbout(const std::vector<std::string>& events);

} // namespace kesa::actor

#endif
