#include <util/config/Complaint.h>

namespace util::config {

std::string Complaint::words() const
{
    return advice.empty() ? text : text + "; " + advice;
}

std::string Complaint::sentence(const std::string& source) const
{
    std::string sentence = source;
    if (line > 0) {
        sentence.append(source.empty() ? "" : ":").append(std::to_string(line) + ":" + std::to_string(column));
    }
    sentence.append(sentence.empty() ? "" : ": ");
    sentence.append(toText(path)).append(path.empty() ? "" : ": ");
    return sentence.append(words());
}

} // namespace util::config
