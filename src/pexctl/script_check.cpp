#include "pexctl/script_check.h"

#include <sys/stat.h>

#include <filesystem>
#include <lua.hpp>
#include <map>
#include <memory>
#include <set>

#include "pexctl/failure.h"

namespace pexctl {

namespace {

namespace fs = std::filesystem;

bool ends_with(const std::string& text, const std::string& ending)
{
    return text.size() >= ending.size() &&
           text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

std::set<std::string> scripts_in(const std::string& dir)
{
    std::set<std::string> names;
    std::error_code problem;
    for (const auto& entry : fs::directory_iterator(dir, problem)) {
        const std::string name = entry.path().filename().string();
        if (ends_with(name, ".lua")) {
            names.insert(name);
        }
    }
    return names;
}

/// What Lua says against a file, as the daemon would load it; "" if nothing.
std::string load_error(const std::string& path)
{
    const std::unique_ptr<lua_State, decltype(&lua_close)> L(luaL_newstate(), &lua_close);
    if (!L) {
        throw Failure(wrong_usage, "Failed to create a new Lua instance.");
    }
    if (luaL_loadfilex(L.get(), path.c_str(), nullptr) == LUA_OK) {
        return "";
    }
    return lua_tostring(L.get(), -1);
}

void check_script(const std::string& path, Findings& findings)
{
    struct stat status = {};
    const bool exists = stat(path.c_str(), &status) == 0;
    if (exists && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
        // Not even opened: a pipe without a writer would block here, too.
        findings.push_back({Finding::error, path,
                            "It is no regular file: a request for it may block the service."});
    } else if (const std::string problem = load_error(path); !problem.empty()) {
        findings.push_back({Finding::error, path, "It does not load: " + problem});
    }
    if (exists && (status.st_mode & S_IWOTH) != 0) {
        findings.push_back({Finding::warning, path,
                            "Everybody can write it, and so decide what the service runs."});
    }
    if (ends_with(path, ".lua.lua")) {
        const std::string name = fs::path(path).stem().string();
        findings.push_back(
            {Finding::warning, path,
             "Its name ends in .lua twice: only a request for " + name + " runs it."});
    }
}

}  // namespace

Findings check_scripts(const std::vector<std::string>& dirs, std::size_t& count)
{
    Findings findings;
    std::map<std::string, std::string> first;  // script and where it was found first
    count = 0;
    for (const std::string& dir : dirs) {
        for (const std::string& name : scripts_in(dir)) {
            ++count;
            check_script(dir + name, findings);
            const auto [found, is_new] = first.emplace(name, dir + name);
            if (!is_new) {
                findings.push_back({Finding::warning, dir + name,
                                    "It never runs: " + found->second + " is found before it."});
            }
        }
    }
    return findings;
}

}  // namespace pexctl
