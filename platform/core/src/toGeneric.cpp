#include <kesa/toGeneric.h>

namespace kesa {

util::config::Value toGeneric(const std::vector<std::string>& strings)
{
    return util::config::Value(util::config::Value::Array(strings.begin(), strings.end()));
}

} // namespace kesa
