#include "pexctl/temporary_dir.h"

#include <stdlib.h>

#include <cerrno>
#include <cstring>

#include "pexctl/failure.h"

namespace pexctl {

std::string make_temporary_dir()
{
    const char* parent = std::getenv("TMPDIR");
    std::string path = std::string(parent == nullptr ? "/tmp" : parent) + "/pexctl-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) {
        throw Failure(wrong_usage, path + ": " + std::strerror(errno));
    }
    return path;
}

}  // namespace pexctl
