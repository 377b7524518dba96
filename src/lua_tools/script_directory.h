#pragma once

#include <dirent.h>

#include <log4cpp/Category.hh>
#include <string>

namespace pex {

/// One search of one script directory: open it, look one name up, drop it.
/// Reads the directory's entries instead of probing a path, so that a requested
/// name matches only as a whole entry name and cannot climb out with "../".
class ScriptDirectory {
public:
    /// `owner_log` is the category of the owner and must outlive this object.
    explicit ScriptDirectory(log4cpp::Category& owner_log);
    ~ScriptDirectory();
    ScriptDirectory(const ScriptDirectory&) = delete;
    ScriptDirectory& operator=(const ScriptDirectory&) = delete;

    /// Opens `path`, which is borrowed and must stay valid until the lookup has returned.
    /// On failure logs the system's reason and returns false.
    bool open(const char* path);

    /// On a hit stores the entry's path in `script_path` and returns true. A miss, or a read
    /// error (logged), returns false and leaves `script_path` alone. Either way the directory is
    /// closed: one lookup per open(). Throws std::runtime_error if no directory is open.
    bool lookup_absolute_script(std::string& script_path, const std::string& script_name);

    /// Harmless when already closed.
    void close();

private:
    log4cpp::Category& log;
    DIR* _directory;
    const char* _dir_path;
};

}  // namespace pex
