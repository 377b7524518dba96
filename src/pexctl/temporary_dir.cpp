#include "pexctl/temporary_dir.h"

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "pexctl/failure.h"

namespace pexctl {

std::string make_temporary_dir()
{
    std::string path = (std::filesystem::temp_directory_path() / "pexctl-XXXXXX").string();
    if (mkdtemp(path.data()) == nullptr) {
        throw Failure(wrong_usage, path + ": " + std::strerror(errno));
    }
    return path;
}

}  // namespace pexctl
