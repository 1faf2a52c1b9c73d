#ifndef KESA_TESTS_SUPPORT_ASSERTIONRECORDER_H
#define KESA_TESTS_SUPPORT_ASSERTIONRECORDER_H

#include <obr/GlobalErrorHandler.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kesa::test {

/// As long as it lives, keeps assertions that fail, on any thread, instead of ending the process: each as "condition,
/// function, message".
class AssertionRecorder {
public:
    AssertionRecorder()
        : m_before(obr::GlobalErrorHandler::setHandler([this](const obr::GlobalErrorHandler::Report& report) {
              const std::lock_guard lock(m_mutex);
              m_failed.push_back(std::string(report.condition) + ", " + report.function + ", " +
                                 (report.message != nullptr ? report.message : ""));
          }))
    {}
    ~AssertionRecorder() { obr::GlobalErrorHandler::setHandler(m_before); }
    AssertionRecorder(const AssertionRecorder&) = delete;
    AssertionRecorder& operator=(const AssertionRecorder&) = delete;

    std::vector<std::string> take()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_failed, {});
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_failed;
    const obr::GlobalErrorHandler::Handler m_before;
};

} // namespace kesa::test

#endif
