#ifndef KESA_TESTS_SYSTEM_CHECKHISTORY_H
#define KESA_TESTS_SYSTEM_CHECKHISTORY_H

#include <string>
#include <vector>

namespace kesa::system_test {

/// What is wrong with the events an actor told; empty when nothing is. Rules: "connected" and "lost" of one locator or
/// path take turns; a request has values only between its issue and its one end; a feed that was followed has ended
/// before the next connection of its service, and its values count up by one; no call of a bystander fails.
std::string checkHistory(const std::vector<std::string>& events);

} // namespace kesa::system_test

#endif
