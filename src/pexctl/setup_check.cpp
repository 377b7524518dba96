#include "pexctl/setup_check.h"

namespace pexctl {

SetupReport check_setup(const std::string&)
{
    return {};
}

}  // namespace pexctl
