#ifndef KESA_TESTS_SUPPORT_VARIABLE_H
#define KESA_TESTS_SUPPORT_VARIABLE_H

#include <cstdlib>
#include <string>

namespace kesa::test {

/// A variable of the environment, which is set as long as the object lives.
class Variable {
public:
    Variable(const char* name, const std::string& value) : m_name(name) { ::setenv(name, value.c_str(), 1); }
    ~Variable() { ::unsetenv(m_name); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

private:
    const char* const m_name;
};

} // namespace kesa::test

#endif
