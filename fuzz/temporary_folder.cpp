#include "temporary_folder.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>

#include "expect.h"

namespace fuzz {

TemporaryFolder::TemporaryFolder()
    : _path((std::filesystem::temp_directory_path() / "pex-fuzz-XXXXXX").string())
{
    expect(mkdtemp(_path.data()) != nullptr, "a temporary folder can be made");
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
}

std::string TemporaryFolder::write(const std::string& name, const std::string& content) const
{
    std::string file = _path + "/" + name;
    std::ofstream stream(file, std::ios::binary);
    stream << content;
    stream.close();
    expect(stream.good(), "a temporary file can be written");
    return file;
}

}  // namespace fuzz
