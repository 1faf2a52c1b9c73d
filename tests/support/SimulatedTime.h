#ifndef KESA_TESTS_SUPPORT_SIMULATEDTIME_H
#define KESA_TESTS_SUPPORT_SIMULATEDTIME_H

#include <comm/SimulatedScheduler.h>

namespace kesa::test {

/// Base of a fixture: what is made after it, so also the fixture's members, has its loops and its clock in the test's
/// hand.
class SimulatedTime {
public:
    SimulatedTime(const SimulatedTime&) = delete;
    SimulatedTime& operator=(const SimulatedTime&) = delete;

protected:
    SimulatedTime() : m_before(comm::Scheduler::install(&scheduler)) {}
    ~SimulatedTime() { comm::Scheduler::install(m_before); }

    comm::SimulatedScheduler scheduler{1};

private:
    comm::Scheduler* const m_before;
};

} // namespace kesa::test

#endif
