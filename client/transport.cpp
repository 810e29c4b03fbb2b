// SPDX-License-Identifier: GPL-2.0-only
// Chooses the way to the control device by what stands at the path.
#include "client/transport.h"

#include "client/error.h"

#include <sys/stat.h>

#include <cerrno>

namespace quendrel
{

std::unique_ptr<Transport> openTransport(const std::string& path)
{
    struct stat st {
    };
    if (::stat(path.c_str(), &st) != 0)
        throw Error{"open", "", path, -errno};
    if (S_ISSOCK(st.st_mode))
        return openSocketTransport(path);
    if (S_ISCHR(st.st_mode))
        return openNodeTransport(path);
    throw Error{"open", "", path, -ENODEV, "The path is neither a character device nor a socket"};
}

} // namespace quendrel
