#include "readDocument.h"

#include <obr/ErrorOutput.h>
#include <obr/environment.h>
#include <obr/errors.h>
#include <util/config/Provider.h>
#include <util/config/findDocument.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <unistd.h>

namespace util::config {
namespace {

struct Candidate {
    std::string folder;
    std::string file;
    bool mustExist;
};

std::string inUpperCase(std::string name)
{
    for (char& c : name) {
        if (c >= 'a' && c <= 'z') {
            c = static_cast<char>(c - 'a' + 'A');
        }
    }
    return name;
}

std::string folderOf(const std::string& file)
{
    const std::size_t slash = file.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : file.substr(0, slash);
}

/// Who works with more rights than others reads nothing of a folder that it is merely called in, which may be theirs.
bool isWithoutWorkingFolder()
{
    return ::geteuid() == 0 || obr::hasMoreRightsThanStarter();
}

bool isRelative(const std::string& path)
{
    return !path.empty() && path.front() != '/';
}

/// The files that may hold the document, the one that counts first.
std::vector<Candidate> candidates(const std::string& name, const std::string& path)
{
    const std::string variable = inUpperCase(name) + "_CONFIG";
    if (const std::string file = obr::environment(variable); !file.empty()) {
        return {{folderOf(file), file, true}};
    }
    std::vector<Candidate> result;
    const std::string working = isRelative(path) && isWithoutWorkingFolder() ? "" : path;
    for (const std::string& folder : {obr::environment(variable + "_DIR"), working, "/etc/" + name}) {
        if (!folder.empty()) {
            result.push_back({folder, fmt::format("{}/{}.json", folder, name), false});
        }
    }
    return result;
}

bool exists(const std::string& file)
{
    return ::access(file.c_str(), F_OK) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

} // namespace

Provider::Provider(const std::string& name, const std::string& path, int, LoadStrategy)
{
    std::string lookedFor;
    for (const Candidate& candidate : candidates(name, path)) {
        m_complaints.clear();
        const Reading reading = readDocument(candidate.file, m_second, m_complaints, m_text);
        if (reading == Reading::eMISSING && !candidate.mustExist) {
            lookedFor += (lookedFor.empty() ? "" : ", ") + candidate.file;
            continue;
        }
        m_file = candidate.file;
        m_first = m_second[name];
        m_failed = reading != Reading::eREAD;
        break;
    }
    if (m_file.empty()) {
        m_complaints = {{Complaint::Severity::eERROR, {}, "there is no configuration; looked for " + lookedFor}};
        m_failed = true;
    }
    if (m_failed) {
        static_cast<void>(obr::ErrorOutput(__FILE__, __LINE__, true)(obr::errors::Error, obr::errors::TEXT,
                                                                     m_complaints.back().sentence(m_file)));
    }
}

std::string findDocument(const std::string& name, const std::string& path)
{
    for (const Candidate& candidate : candidates(name, path)) {
        if (candidate.mustExist || exists(candidate.file)) {
            return candidate.file;
        }
    }
    return {};
}

bool Provider::isConfigured(const std::string& name, const std::string& path)
{
    const std::vector<Candidate> all = candidates(name, path);
    return std::any_of(all.begin(), all.end(),
                       [](const Candidate& candidate) { return candidate.mustExist || exists(candidate.file); });
}

std::string Provider::passedOver(const std::string& name, const std::string& path)
{
    const std::string file = fmt::format("{}/{}.json", path, name);
    if (!isRelative(path) || !isWithoutWorkingFolder() || !exists(file)) {
        return {};
    }
    const std::vector<Candidate> all = candidates(name, path);
    const bool isBeforeIt = all.front().mustExist || (all.size() > 1 && exists(all.front().file));
    return isBeforeIt ? std::string() : file;
}

std::string Provider::folder(const std::string& name, const std::string& path)
{
    const std::vector<Candidate> all = candidates(name, path);
    for (const Candidate& candidate : all) {
        if (exists(candidate.file)) {
            return candidate.folder;
        }
    }
    return all.front().folder;
}

} // namespace util::config
