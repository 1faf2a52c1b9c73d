#ifndef OBR_ERROROUTPUT_H
#define OBR_ERROROUTPUT_H

#include <obr/ErrorType.h>

namespace obr {

/// Records one error as the pending error of the current run loop (see `ErrorStorage`):
///
///     return obr::ErrorOutput(__FILE__, __LINE__, true)(kesa::errors::Error, 16, mimeType);
///
/// The call answers `true`, which is failure everywhere in Kesa.
class KESA_API ErrorOutput {
public:
    /// `file` is a literal: it is kept by address. `intoStorage` false: the error is dropped.
    ErrorOutput(const char* file, int line, bool intoStorage = true) noexcept
        : m_file(file), m_line(line), m_intoStorage(intoStorage)
    {}

    template <class... A>
    bool operator()(const ErrorType& type, int number, const A&... arguments) const
    {
        const std::string_view list[] = {std::string_view(arguments)..., std::string_view()};
        return record(type, number, list, sizeof...(arguments));
    }

private:
    bool record(const ErrorType& type, int number, const std::string_view* arguments, std::size_t count) const;

    const char* m_file;
    int m_line;
    bool m_intoStorage;
};

} // namespace obr

#endif
