#ifndef UTIL_CONFIG_INTERFACEINFORMATIONPROVIDER_H
#define UTIL_CONFIG_INTERFACEINFORMATIONPROVIDER_H

#include <obr/api.h>

#include <string>
#include <vector>

namespace util::config {

/// The interface versions declared for services, from `interfaces.json` beside the configuration:
/// `{"pex": {"media/player": ["1.0.0"]}}`. The document is read once; one that cannot be read is traced (4) then and
/// declares nothing. Any thread.
class KESA_API InterfaceInformationProvider {
public:
    static InterfaceInformationProvider& instance();
    /// `service` without a leading '/'. An empty list is success; an unknown word or service, or what is no list of
    /// texts, is failure, without an error in `obr::ErrorStorage`.
    [[nodiscard]] bool getInterfaceVersion(const std::string& word, const std::string& service,
                                           std::vector<std::string>& versions) const;
    /// Reads the document anew at the next question.
    void forgetForTest();

private:
    struct State;

    InterfaceInformationProvider();

    State* const m_state;
};

} // namespace util::config

#endif
