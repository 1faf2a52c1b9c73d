#include "readDocument.h"

#include "parseDocument.h"

#include <obr/explainError.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace util::config {
namespace {

constexpr std::size_t LARGEST_DOCUMENT = std::size_t{16} << 20;

class Descriptor {
public:
    explicit Descriptor(int descriptor) noexcept : m_descriptor(descriptor) {}
    ~Descriptor()
    {
        if (m_descriptor >= 0) {
            ::close(m_descriptor);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const noexcept { return m_descriptor; }

private:
    const int m_descriptor;
};

/// `openError` counts when the descriptor is none: sockets cannot be opened at all.
bool isNoPlainFile(int descriptor, int openError)
{
    struct stat status {};
    return descriptor < 0 ? openError == ENXIO : ::fstat(descriptor, &status) == 0 && !S_ISREG(status.st_mode);
}

/// True, with `errno`, when it cannot be read; what is too large is cut behind the limit.
[[nodiscard]] bool readBytes(int descriptor, std::string& bytes)
{
    char part[16 * 1024];
    while (bytes.size() <= LARGEST_DOCUMENT) {
        const ssize_t size = ::read(descriptor, part, sizeof part);
        if (size == 0) {
            return false;
        }
        if (size > 0) {
            bytes.append(part, static_cast<std::size_t>(size));
        } else if (errno != EINTR) {
            return true;
        }
    }
    return false;
}

void addError(std::vector<Complaint>& complaints, std::string text, std::string advice)
{
    complaints.push_back({Complaint::Severity::eERROR, {}, std::move(text), std::move(advice)});
}

} // namespace

Reading readDocument(const std::string& file, Value& out, std::vector<Complaint>& complaints)
{
    std::string text;
    return readDocument(file, out, complaints, text);
}

Reading readDocument(const std::string& file, Value& out, std::vector<Complaint>& complaints, std::string& text)
{
    text.clear();
    // A pipe is opened without waiting for whoever writes into it, so that it can be refused.
    const Descriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (isNoPlainFile(descriptor.get(), errno)) {
        addError(complaints, "is a directory, a pipe, a socket or a device", "the configuration is a plain file");
        return Reading::eFAILED;
    }
    if (descriptor.get() < 0 || readBytes(descriptor.get(), text)) {
        const int error = errno;
        const bool isMissing = error == ENOENT || error == ENOTDIR;
        const std::string shortage = obr::adviseOnShortage(error);
        addError(complaints, "cannot be read: " + std::system_category().message(error),
                 !shortage.empty() ? shortage
                 : isMissing       ? "write it, or name another one"
                                   : "let this user read it");
        return isMissing ? Reading::eMISSING : Reading::eFAILED;
    }
    if (text.size() > LARGEST_DOCUMENT) {
        addError(complaints, "is larger than 16 MiB", "make it smaller");
        return Reading::eFAILED;
    }
    return parseDocument(text, out, complaints) ? Reading::eFAILED : Reading::eREAD;
}

} // namespace util::config
