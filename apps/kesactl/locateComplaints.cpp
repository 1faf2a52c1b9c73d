#include "locateComplaints.h"

#include <util/config/JsonPositions.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <utility>

namespace kesactl {

using kesa::runtime::v02::Complaint;

void locateComplaints(kesa::runtime::v02::ConfigReport& report)
{
    if (!report.root.isDefined() || report.file.empty()) {
        return;
    }
    std::ifstream in(report.file, std::ios::binary);
    const util::config::JsonPositions positions(std::string(std::istreambuf_iterator<char>(in), {}));
    for (Complaint& complaint : report.complaints) {
        const auto [line, column] = positions.find(complaint.path);
        complaint.line = line;
        complaint.column = column;
    }
    std::stable_sort(report.complaints.begin(), report.complaints.end(), [](const Complaint& a, const Complaint& b) {
        return std::pair(a.line, a.column) < std::pair(b.line, b.column);
    });
}

} // namespace kesactl
