#include <obr/ErrorOutput.h>
#include <obr/ErrorStorage.h>

namespace obr {

bool ErrorOutput::record(const ErrorType& type, int number, const std::string_view* arguments, std::size_t count) const
{
    if (m_intoStorage) {
        ErrorStorage::Slot slot{true, type.text(number, arguments, count), m_file, m_line};
        ErrorStorage::exchange(slot);
    }
    return true;
}

} // namespace obr
