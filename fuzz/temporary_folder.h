#pragma once

#include <string>

namespace fuzz {

/// A folder in TMPDIR; goes away with this object.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// Without a '/' at the end.
    const std::string& path() const { return _path; }
    /// Writes a file anew and returns its path.
    std::string write(const std::string& name, const std::string& content) const;

private:
    std::string _path;
};

}  // namespace fuzz
