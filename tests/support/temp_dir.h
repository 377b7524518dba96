#pragma once

#include <string>

/// A directory of its own for one test; goes away with this object.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    /// Without a '/' at the end.
    const std::string& path() const { return _path; }
    /// Writes a file and returns its path.
    std::string write(const std::string& name, const std::string& content) const;
    /// Makes a subdirectory and returns its path.
    std::string make_dir(const std::string& name) const;

private:
    std::string _path;
};

/// The whole content of a file; empty if it cannot be read.
std::string read_file(const std::string& path);

/// Changes the working directory for as long as it lives.
class WorkingDirectory {
public:
    explicit WorkingDirectory(const std::string& path);
    ~WorkingDirectory();
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

private:
    int _before;  ///< descriptor of the directory to return to
};

/// Sets an environment variable for as long as it lives.
class EnvironmentVariable {
public:
    EnvironmentVariable(const std::string& name, const std::string& value);
    ~EnvironmentVariable();
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

private:
    std::string _name;
};
