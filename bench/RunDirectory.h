#ifndef BENCH_RUNDIRECTORY_H
#define BENCH_RUNDIRECTORY_H

#include "require.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace bench {

/// A folder for sockets and the configuration, which is gone at the end. Whatever is started after `enter` finds it.
class RunDirectory {
public:
    explicit RunDirectory(const std::string& configuration)
        : m_folder((std::filesystem::temp_directory_path() / "kesa-bench-XXXXXX").string())
    {
        require(::mkdtemp(m_folder.data()) != nullptr, "temporary folder");
        std::ofstream(document()) << configuration;
        enter();
    }
    ~RunDirectory() { std::filesystem::remove_all(m_folder); }
    RunDirectory(const RunDirectory&) = delete;
    RunDirectory& operator=(const RunDirectory&) = delete;

    void enter() const
    {
        ::setenv("KESA_RUN_DIR", m_folder.c_str(), 1);
        ::setenv("KESA_CONFIG", document().c_str(), 1);
    }

private:
    std::string document() const { return m_folder + "/kesa.json"; }

    std::string m_folder;
};

} // namespace bench

#endif
