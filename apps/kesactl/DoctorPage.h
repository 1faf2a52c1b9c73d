#ifndef KESACTL_DOCTORPAGE_H
#define KESACTL_DOCTORPAGE_H

#include <util/config/Dictionary.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kesactl {

/// All that decides whether the processes of this machine find each other, and what is wrong.
struct DoctorPage {
    static constexpr std::size_t MOST = 20; ///< of a kind; more would hide the rest

    std::string text;
    util::config::Dictionary facts;    ///< what the text says, in JSON
    std::vector<std::string> findings; ///< each a sentence with what to do

    void addLine(std::string_view name, std::string_view value);
    /// A line, and the same as a member of the facts.
    void add(std::string_view name, const std::string& value);
    /// Findings of one kind.
    void find(std::vector<std::string>& kind, std::string_view whatMore);

    std::string asText() const;
    std::string asJson() const;
};

} // namespace kesactl

#endif
