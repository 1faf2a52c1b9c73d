#ifndef KESA_TESTS_SIM_ORDERS_H
#define KESA_TESTS_SIM_ORDERS_H

#include <cstdint>
#include <string>
#include <vector>

namespace kesa::sim {

/// The registry, a provider and a watcher start in every order, with and without the registry dying between any two.
/// Answers the broken rules; the end is the same every time.
std::vector<std::string> runOrders(std::uint64_t seed);

} // namespace kesa::sim

#endif
