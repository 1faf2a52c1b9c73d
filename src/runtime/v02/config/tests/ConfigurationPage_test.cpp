// docs/configuration.md: its tables name each key that the readers know and no other, with an example that is good and
// one that is complained of in the words the table has; its documents are good.
#include <TemporaryFolder.h>
#include <Variable.h>
#include <kesa/commadapter/checkCommSettings.h>
#include <kesa/runtime/v02/getPexVersion.h>
#include <runtime/v02/config/ConfigReport.h>
#include <runtime/v02/config/KesaConfig.h>
#include <runtime/v02/config/reviewDocument.h>
#include <runtime/v02/config/unknownKeys.h>
#include <tracing/CapturingSink.h>
#include <util/config/FrameworkProvider.h>
#include <util/config/InterfaceInformationProvider.h>
#include <util/config/JSONParser.h>

#include <fstream>
#include <utility>

namespace kesa::runtime::v02 {
namespace {

using testing::UnorderedElementsAreArray;
using util::config::Dictionary;
using util::config::Value;
using Strings = std::vector<std::string>;

struct Row {
    std::string key; ///< as `documentKeys` names it
    std::string example;
    std::string wrong;
    std::string complaint;
};

Strings cellsOf(const std::string& line)
{
    Strings cells;
    for (std::size_t begin = 1, end = 0; (end = line.find('|', begin)) != std::string::npos; begin = end + 1) {
        cells.push_back(line.substr(begin, end - begin));
        cells.back().erase(cells.back().find_last_not_of(" `") + 1).erase(0, cells.back().find_first_not_of(" `"));
    }
    return cells;
}

class ConfigurationPage : public testing::Test {
protected:
    ConfigurationPage()
    {
        const std::string fence = "```json";
        std::ifstream page(KESA_DOCS "/configuration.md");
        bool isInTable = false;
        for (std::string line; std::getline(page, line);) {
            if (line.starts_with(fence)) {
                documents.emplace_back(line.size() > fence.size() ? line.substr(fence.size() + 1) : "kesa.json", "");
                while (std::getline(page, line) && line != "```") {
                    documents.back().second += line + '\n';
                }
            }
            isInTable = line.starts_with("| Key |") || (isInTable && line.starts_with('|'));
            if (isInTable && line.starts_with("| `")) {
                const Strings cells = cellsOf(line);
                rows.push_back({cells.at(0), cells.at(3), cells.at(4), cells.at(5)});
            }
        }
    }

    std::vector<Row> rows;
    std::vector<std::pair<std::string, std::string>> documents; ///< name of the file and text
};

Value parse(const std::string& text)
{
    Value value;
    EXPECT_FALSE(util::config::JSONParser().parseString(text, value)) << text;
    return value;
}

/// A document that is good but for the value of the key.
std::string documentWith(const std::string& key, const std::string& text)
{
    Dictionary root{{"serializer-formats", parse(R"(["application/json"])")}};
    if (key == "service_registry_locators") {
        root.set("use_registry", true);
    }
    const std::size_t dot = key.find('.');
    const std::string object = key.substr(0, dot);
    if (dot == std::string::npos) {
        root.set(key, parse(text));
    } else if (object == "services[]") {
        Dictionary service = parse(R"({"path": "/a", "type": "pex", "locators": ["ipc://p"]})").dictionary();
        service.set(key.substr(dot + 1), parse(text));
        root.set("services", Value(Value::Array{Value(service)}));
    } else {
        root.set(object, Value(Dictionary{{key.substr(dot + 1), parse(text)}}));
    }
    return Value(root).toText();
}

/// As `kesactl check-config` words them.
Strings complaintsOf(ConfigReport& report)
{
    reviewDocument(report);
    const std::vector<Complaint> ofBackend = commadapter::checkCommSettings(report.root["comm"]);
    report.complaints.insert(report.complaints.end(), ofBackend.begin(), ofBackend.end());
    Strings complaints;
    for (const Complaint& complaint : report.complaints) {
        const bool isError = complaint.severity == Severity::eERROR;
        const bool isWarning = complaint.severity == Severity::eWARNING;
        complaints.push_back((isError ? "error: " : isWarning ? "warning: " : "hint: ") + complaint.words());
    }
    return complaints;
}

/// Of a document that has the key in an object where it means nothing.
void expectToBelongElsewhere(const Row& row)
{
    const std::size_t dot = row.key.find('.');
    const std::string object = row.key.substr(0, dot);
    const std::string key = dot == std::string::npos ? row.key : row.key.substr(dot + 1);
    const std::string wrong = object == "smartProxy" ? "comm" : "smartProxy";
    const std::string right = dot == std::string::npos ? "beside \"" + wrong
                              : object == "services[]" ? "in an entry of \"services"
                                                       : "in \"" + object;
    ConfigReport report;
    const Dictionary member{{key, parse(row.example)}};
    const KesaConfig config("media", Value(Dictionary{{wrong, Value(member)}}).toText(), &report);
    EXPECT_THAT(complaintsOf(report), testing::Contains("warning: '" + key + "' belongs " + right +
                                                        "\", and has no effect here; move it there"));
}

TEST_F(ConfigurationPage, HasTheKeysThatTheReadersKnow)
{
    Strings documented;
    for (const Row& row : rows) {
        documented.push_back(row.key);
    }
    Strings known = documentKeys();
    for (const std::string& key : commadapter::commSettingKeys()) {
        known.push_back("comm." + key);
    }
    EXPECT_THAT(documented, UnorderedElementsAreArray(known));
}

TEST_F(ConfigurationPage, HasGoodExamplesAndTheComplaintsOfBadOnes)
{
    const ::tracing::TraceCapture traces("KESA_RUNTIME_CONFIG", 3);
    for (const Row& row : rows) {
        ConfigReport good;
        const KesaConfig config("media", documentWith(row.key, row.example), &good);
        const bool isRefused = row.complaint.find("not supported yet") != std::string::npos;
        EXPECT_EQ(complaintsOf(good), isRefused ? Strings{row.complaint} : Strings()) << row.key << ": " << row.example;
        ConfigReport bad;
        const KesaConfig wrong("media", documentWith(row.key, row.wrong), &bad);
        EXPECT_EQ(complaintsOf(bad), Strings{row.complaint}) << row.key << ": " << row.wrong;
        const bool isOfRules =
            row.key == "access" || row.key == "registry.policy"; // they are not the runtime's to read
        const bool counts = !row.complaint.starts_with("error") || isOfRules;
        EXPECT_EQ(wrong.m_valid, counts) << row.key << ": " << row.wrong;
        if (!isRefused) {
            expectToBelongElsewhere(row);
        }
    }
}

TEST_F(ConfigurationPage, HasGoodDocuments)
{
    const kesa::test::TemporaryFolder folder;
    const kesa::test::Variable configuration("KESA_CONFIG_DIR", folder.path());
    for (const auto& [file, text] : documents) {
        std::ofstream(folder / file) << text;
        ConfigReport report;
        const KesaConfig config("media", &report);
        EXPECT_TRUE(config.m_valid) << text;
        EXPECT_EQ(complaintsOf(report), Strings()) << text;
    }
    std::string node;
    EXPECT_FALSE(util::config::FrameworkProvider::getNodenameForProcess("media", node));
    EXPECT_NE(node, "local") << "framework.json says nothing of it";
    util::config::InterfaceInformationProvider::instance().forgetForTest();
    EXPECT_NE(getPexVersion("/media/player"), nullopt);
    EXPECT_EQ(getPexVersion("//media/player"), nullopt);
    util::config::InterfaceInformationProvider::instance().forgetForTest();
}

} // namespace
} // namespace kesa::runtime::v02
