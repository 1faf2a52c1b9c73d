#ifndef KESA_TESTS_SIM_ORDERS_H
#define KESA_TESTS_SIM_ORDERS_H

#include <cstdint>
#include <string>
#include <vector>

namespace kesa::sim {

/// The registry, a provider and a watcher start in every order, with and without the registry dying between any two.
/// Answers the broken rules; the end is the same every time.
std::vector<std::string> runOrders(std::uint64_t seed);

/// Fifty registered processes live through the end and the death of the registry, and are all listed again.
std::vector<std::string> runManyProcesses(std::uint64_t seed);

} // namespace kesa::sim

#endif
