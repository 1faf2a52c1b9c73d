#include <comm/endThrown.h>

#include <exception>

namespace comm {

void endThrown(const tracing::Channel& channel, const std::string& what)
{
    std::string text = "an exception that is no std::exception";
    try {
        throw;
    } catch (const std::exception& exception) {
        text = exception.what();
    } catch (...) {
    }
    KESA_TRACE(channel, 4,
               "[loop] %s has thrown, which ends this process: %s; catch it there, as kesa::ResourceHandler does",
               what.c_str(), text.c_str());
    std::terminate();
}

} // namespace comm
