#ifndef UTIL_CONFIG_PROVIDER_H
#define UTIL_CONFIG_PROVIDER_H

#include <util/config/Complaint.h>
#include <util/config/LoadStrategy.h>
#include <util/config/Value.h>

#include <string>
#include <vector>

namespace util::config {

/// Finds and reads the configuration document of a process. For the name "kesa" and the path "./config" it reads
/// the first of: the file `$KESA_CONFIG`, `$KESA_CONFIG_DIR/kesa.json`, `./config/kesa.json`, `/etc/kesa/kesa.json`.
/// Root, and a process with more rights than who started it, read nothing of the working directory. A `$KESA_CONFIG`
/// that names a missing file is a failure; the others are skipped when missing. A file that is there and cannot be
/// read, or is larger than 16 MiB, is a failure.
class KESA_API Provider {
public:
    Provider(const std::string& name, const std::string& path, int number, LoadStrategy strategy);

    /// True when there is no document or it cannot be read; the reason, with file, line and column, is in
    /// `obr::ErrorStorage`.
    bool hasFailed() const noexcept { return m_failed; }
    /// The candidates for the root, to be tried in this order: the document's member of the provider's name, then
    /// the document itself. Undefined when absent.
    const Value& first() const noexcept { return m_first; }
    const Value& second() const noexcept { return m_second; }

    /// The file that counts, also when it could not be read; empty when there is none.
    const std::string& file() const noexcept { return m_file; }
    /// What was read of it: places in it are found there, since the file may be another one by now.
    const std::string& text() const noexcept { return m_text; }
    /// Whether there is a document to read: `$KESA_CONFIG` is set, or one of the files is there.
    static bool isConfigured(const std::string& name, const std::string& path);
    /// The file of the working directory that this process does not look for, and that is there; else empty.
    static std::string passedOver(const std::string& name, const std::string& path);
    /// The folder in which the documents beside the configuration are looked for.
    static std::string folder(const std::string& name, const std::string& path);
    /// Why there is no document or it cannot be read, else the keys that stand more than once in one object of it.
    const std::vector<Complaint>& complaints() const noexcept { return m_complaints; }

private:
    bool m_failed = false;
    Value m_first;
    Value m_second;
    std::string m_file;
    std::string m_text;
    std::vector<Complaint> m_complaints;
};

} // namespace util::config

#endif
