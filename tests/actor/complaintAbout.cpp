#include "complaintAbout.h"

#include <map>
#include <sstream>
#include <utility>

namespace kesa::actor {

std::string complaintAbout(const std::vector<std::string>& events)
{
    std::map<std::string, bool> isConnected;
    std::map<std::string, bool> isOpen;
    for (const std::string& event : events) {
        std::istringstream words(event);
        std::string kind;
        std::string subject;
        words >> kind >> subject;
        const bool isEnd = kind == "error" || kind == "completed";
        bool isWrong = kind == "broken";
        if (kind == "connected" || kind == "lost") {
            isWrong = std::exchange(isConnected[subject], kind == "connected") == (kind == "connected");
            for (const auto& [stream, open] : isOpen) { // ends come before the next connection
                isWrong = isWrong || (kind == "connected" && open && stream.rfind(subject + '#', 0) == 0);
            }
        } else if (kind == "cancelled") { // it may have ended before
            isOpen[subject] = false;
        } else if (kind == "dropped") {
            isConnected[subject] = false;
        } else if (kind == "issued" || kind == "value" || isEnd) {
            isWrong = std::exchange(isOpen[subject], !isEnd) == (kind == "issued");
        }
        if (isWrong) {
            return "\"" + event + "\" may not come here";
        }
    }
    return {};
}

} // namespace kesa::actor
