#include "reviewRunDirectory.h"

#include "missingRight.h"
#include "runDirectoryProblem.h"

#include <fmt/format.h>

#include <string>
#include <utility>

namespace kesactl {

using kesa::commadapter::transport::RunDirectory;
using util::config::Complaint;

namespace {

RunDirectoryProblem findProblemAtStart(const RunDirectoryFacts& facts, const std::string& source)
{
    RunDirectoryProblem problem = findProblem(facts, source);
    if (!problem.text.empty() || facts.error != 0) {
        return problem;
    }
    if (facts.realmState == RunDirectoryFacts::Realm::eBAD) {
        return {fmt::format("{}/realm does not hold 16 hex digits", facts.path),
                "remove it when no process uses the directory"};
    }
    if (facts.realmState == RunDirectoryFacts::Realm::eUNREADABLE) {
        return {fmt::format("{}/realm cannot be read by this user", facts.path), "give it the mode 0644"};
    }
    if (!facts.isWritable) {
        return {fmt::format("this user cannot write into the run directory {} ({}), which is {}", facts.path, source,
                            facts.rights),
                howToGetRight(facts.path, "have its owner let a group of this user write there") +
                    ", or name another one"};
    }
    if (!facts.distrust.text.empty()) {
        return {fmt::format("the run directory {} ({}) {}", facts.path, source, facts.distrust.text),
                facts.distrust.advice + ", or name another one"};
    }
    return {};
}

} // namespace

std::optional<Complaint> reviewRunDirectory(const RunDirectory& directory)
{
    const std::string source = directory.source();
    RunDirectoryProblem problem = findProblemAtStart(RunDirectoryFacts(directory.path()), source);
    if (problem.text.empty()) {
        return std::nullopt;
    }
    util::config::DocumentPath path;
    if (source == "run_dir") {
        path = {"comm", "run_dir"};
    }
    return Complaint{Complaint::Severity::eWARNING, std::move(path),
                     problem.text + ", so a process of this user can provide nothing", std::move(problem.advice)};
}

} // namespace kesactl
