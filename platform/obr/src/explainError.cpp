#include <obr/explainError.h>

#include <sys/resource.h>

#include <fmt/format.h>

#include <cerrno>
#include <system_error>

namespace obr {

std::string adviseOnShortage(int error)
{
    switch (error) {
    case EMFILE: {
        rlimit descriptors{};
        const bool isKnown = ::getrlimit(RLIMIT_NOFILE, &descriptors) == 0;
        return fmt::format("this process has used up its descriptors: let it have more{} (ulimit -n, or LimitNOFILE= "
                           "of its unit) or close some, then try again",
                           isKnown ? fmt::format(" than {}", descriptors.rlim_cur) : "");
    }
    case ENFILE:
        return "all processes of the machine together have used up its open files: let it have more (sysctl "
               "fs.file-max) or end some, then try again";
    case ENOMEM:
        return "the machine is short of memory: try again later";
    case ENOSPC:
        return "make room there: its file system is full, or has no inode left (df, df -i)";
    case EDQUOT:
        return "make room there: the quota of this user is used up";
    default:
        return {};
    }
}

std::string explainError(int error)
{
    const std::string advice = adviseOnShortage(error);
    return std::system_category().message(error) + (advice.empty() ? "" : "; " + advice);
}

} // namespace obr
