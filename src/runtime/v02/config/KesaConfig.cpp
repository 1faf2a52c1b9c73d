#include "KesaConfig.h"

#include "ConfigNode.h"
#include "traceFaults.h"
#include "unknownKeys.h"

#include <kesa/mimetypes.h>
#include <obr/ErrorStorage.h>
#include <util/config/JSONParser.h>
#include <util/config/Provider.h>

#include <memory>

namespace kesa::runtime::v02 {

using util::config::Value;

namespace {

constexpr const char* PROVIDER_NAME = "kesa";
constexpr const char* PROVIDER_PATH = "./config";

void append(const std::vector<Complaint>& complaints, ConfigReport& report)
{
    for (const Complaint& complaint : complaints) {
        report.add(complaint);
    }
}

} // namespace

KesaConfig::KesaConfig() : m_ownProcessName("unknown_process")
{
    setDefaults();
}

KesaConfig::KesaConfig(const std::string& processName, ConfigReport* report) : m_ownProcessName(processName)
{
    ConfigReport unread;
    unread.listsAll = false;
    ConfigReport& filled = report != nullptr ? *report : unread;
    setDefaults();
    endReading(readDocument(filled), filled);
}

KesaConfig::KesaConfig(const std::string& processName, const std::string& text, ConfigReport* report)
    : m_ownProcessName(processName)
{
    ConfigReport unread;
    unread.listsAll = false;
    ConfigReport& filled = report != nullptr ? *report : unread;
    setDefaults();
    endReading(readText(text, filled), filled);
}

KesaConfig KesaConfig::readOr(const std::string& processName, const std::string& fallback, ConfigReport* report)
{
    if (const std::string complaint = complaintAboutPassedOver(); !complaint.empty() && report == nullptr) {
        KESA_TRACE(configChannel(), 3, "[readConfig] %s", complaint.c_str());
    }
    return util::config::Provider::isConfigured(PROVIDER_NAME, PROVIDER_PATH)
               ? KesaConfig(processName, report)
               : KesaConfig(processName, fallback, report);
}

std::string KesaConfig::complaintAboutPassedOver()
{
    const std::string file = util::config::Provider::passedOver(PROVIDER_NAME, PROVIDER_PATH);
    return file.empty()
               ? file
               : file + " is not read, since root and a process with more rights than its user read nothing of "
                        "the working directory; name it with KESA_CONFIG if it shall count";
}

const KesaConfig& KesaConfig::getDefault()
{
    static const KesaConfig& config = *new KesaConfig;
    return config;
}

std::string KesaConfig::source() const
{
    return m_file.empty() ? "the document given to the runtime" : m_file;
}

/// Also what a failed reading ends with. Registry locators, bypass, proxy settings and node mapping are not touched:
/// what was read of them before the failure stays in use.
void KesaConfig::setDefaults()
{
    m_useRemoteRegistry = false;
    m_useLocalRegistry = false;
    m_backends = {"comm"};
    m_services.clear();
    m_serializers.clear();
    m_serializers.emplace("*", std::vector<std::string>{std::string(mimetypes::JSON)});
    m_valid = true;
}

bool KesaConfig::readDocument(ConfigReport& report)
{
    obr::ErrorStorage::ack();
    const util::config::Provider provider(PROVIDER_NAME, PROVIDER_PATH, 0, util::config::LoadStrategy::eFIRST_FOUND);
    m_file = provider.file();
    report.file = m_file;
    report.isMissing = m_file.empty();
    const bool isMember = provider.first().isDefined();
    if (isMember) {
        report.rootPath = {PROVIDER_NAME};
    }
    const bool failed = provider.hasFailed() || readConfig(isMember ? provider.first() : provider.second(), report);
    append(provider.complaints(), report);
    return failed;
}

bool KesaConfig::readText(const std::string& text, ConfigReport& report)
{
    obr::ErrorStorage::ack();
    const util::config::JSONParser parser(true);
    util::config::Dictionary* parsed = nullptr;
    const bool isNone = parser.parseStringToDict(text, &parsed);
    const std::unique_ptr<util::config::Dictionary> root(parsed);
    const bool failed = isNone || readConfig(Value(*root), report);
    append(parser.complaints(), report);
    return failed;
}

bool KesaConfig::readConfig(const Value& rootValue, ConfigReport& report)
{
    report.root = rootValue;
    const ConfigNode root(report.root, report);
    if (!rootValue.isDictionary()) {
        return root.failAs(root.mismatch("an object"), 3, "readConfig", "config file contains no dictionary",
                           "the document must be an object: { ... }", "root is not dictionary");
    }
    const bool failed = readKeys(root);
    if (failed && report.listsAll) {
        report.clear(); // they are found again
        static_cast<void>(KesaConfig().readKeys(root.searched()));
        if (report.isFull()) {
            root.complain(Severity::eHINT, "there may be more errors", "correct these first");
        }
    }
    addUnknownKeys(root);
    return failed;
}

bool KesaConfig::readKeys(const ConfigNode& root)
{
    readRegistryLimits(root);
    // The formats come before the services: each service takes its list from them.
    return root.inTurn([&] { return readUseLocalRegistry(root); }, [&] { return readUseRegistry(root); },
                       [&] { return readRegistryLocators(root); }, [&] { return readBackends(root); },
                       [&] { return readSerializerFormats(root); }, [&] { return readServices(root); },
                       [&] { return readBypass(root); }, [&] { return readSmartProxy(root); },
                       [&] { return readNodeDomainMapping(root); });
}

void KesaConfig::endReading(bool failed, ConfigReport& report)
{
    if (failed) {
        // Not every failure records a reason: the text is then empty, or that of a failure which was tolerated before.
        const std::string reason = obr::ErrorStorage::takeReason();
        KESA_TRACE(configChannel(), 3, "[readConfig] failed to the config file, reason = %s", reason.c_str());
        setDefaults();
        m_valid = false;
    }
    traceFaults(report, source(), failed);
}

} // namespace kesa::runtime::v02
