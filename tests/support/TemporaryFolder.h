#ifndef KESA_TESTS_SUPPORT_TEMPORARYFOLDER_H
#define KESA_TESTS_SUPPORT_TEMPORARYFOLDER_H

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace kesa::test {

/// A new folder, which goes with the object and with all that is in it.
class TemporaryFolder {
public:
    TemporaryFolder() : m_path((std::filesystem::temp_directory_path() / "kesa-test-XXXXXX").string())
    {
        if (::mkdtemp(m_path.data()) == nullptr) {
            throw std::runtime_error("no folder like " + m_path);
        }
    }
    ~TemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::string& path() const noexcept { return m_path; }
    /// The path of what is in it by that name.
    std::string operator/(const std::string& name) const { return m_path + '/' + name; }

private:
    std::string m_path;
};

} // namespace kesa::test

#endif
