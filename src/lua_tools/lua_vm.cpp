#include "lua_tools/lua_vm.h"

#include <cstdint>
#include <cstring>
#include <sstream>

#include "lua_tools/pack_to_lua_converter.h"
#include "memory_reserve.h"

namespace pex {

namespace {

/// Packs an object as msgpack::pack() does, but leaves floats floats. The library's packer writes
/// integral floats as integers, which would then fall under the 32-bit integer rule: 4294967296.0
/// would reach the script as 0.
class FloatKeepingPackVisitor : public msgpack::v1::object_pack_visitor<std::ostringstream> {
public:
    FloatKeepingPackVisitor(msgpack::packer<std::ostringstream>& packer, std::ostringstream& stream)
        : object_pack_visitor(packer), _stream(stream)
    {
    }

    // object_parser takes its visitor by static type, so hiding the base's operations is enough.

    bool visit_float32(float value)
    {
        std::uint32_t bits;
        static_assert(sizeof bits == sizeof value, "float 32 is IEEE 754 single precision");
        std::memcpy(&bits, &value, sizeof bits);
        write_float('\xca', bits);
        return true;
    }

    bool visit_float64(double value)
    {
        std::uint64_t bits;
        static_assert(sizeof bits == sizeof value, "float 64 is IEEE 754 double precision");
        std::memcpy(&bits, &value, sizeof bits);
        write_float('\xcb', bits);
        return true;
    }

private:
    /// Writes the format byte and the bits, most significant byte first.
    template <typename Bits>
    void write_float(char format, Bits bits)
    {
        _stream.put(format);
        for (int shift = 8 * (sizeof bits - 1); shift >= 0; shift -= 8) {
            _stream.put(static_cast<char>(bits >> shift & 0xff));
        }
    }

    std::ostringstream& _stream;
};

/// The stream, which holds a copy of its own, ends here: before Lua makes its copy.
std::string pack(const msgpack::object& args)
{
    std::ostringstream stream;
    // Without memory it would otherwise drop bytes in silence, and the job run without its args.
    stream.exceptions(std::ios::badbit);
    msgpack::packer<std::ostringstream> packer(stream);
    FloatKeepingPackVisitor visitor(packer, stream);
    msgpack::v1::object_parser(args).parse(visitor);
    return stream.str();
}

/// Appends ";" + dir + `pattern` per directory to the string field `name` of the table on top of
/// the stack. Leaves the stack as it was.
void append_templates(lua_State* L, const char* name, const std::vector<std::string>& dirs,
                      const char* pattern)
{
    lua_getfield(L, -1, name);  // package path
    std::string templates = lua_tostring(L, -1);
    for (const std::string& dir : dirs) {
        templates += ";" + dir + pattern;
    }
    lua_pop(L, 1);                         // package
    lua_pushstring(L, templates.c_str());  // package path
    lua_setfield(L, -2, name);             // package
}

}  // namespace

LuaVM::LuaVM(const std::vector<std::string>& search_dirs, const char* staging_dir)
    : log(log4cpp::Category::getInstance("script")),
      _L(nullptr),
      _staging_dir(staging_dir),
      _search_dirs(search_dirs)
{
}

LuaVM::~LuaVM()
{
    close();
}

bool LuaVM::open()
{
    _L = luaL_newstate();
    if (_L == nullptr) {
        log.error("Failed to create a new Lua instance.");
        return false;
    }
    lua_setallocf(_L, &LuaPool::allocate, &_pool);
    lua_gc(_L, LUA_GCSTOP, 0);  // until the script runs, nothing is garbage
    // Globals with room for the libraries' names, or the table grows seven times.
    lua_createtable(_L, 0, 64);                            // globals
    lua_rawseti(_L, LUA_REGISTRYINDEX, LUA_RIDX_GLOBALS);  //
    luaL_openlibs(_L);
    return true;
}

void LuaVM::close()
{
    if (_L != nullptr) {
        lua_close(_L);
        _L = nullptr;
    }
}

JobResult LuaVM::executeScript(const char* abs_path, const msgpack::object& args)
{
    if (_L == nullptr && !open()) {
        return JobResult(false,
                         "Dock command service error. Failed to allocate resources for job.");
    }
    addPexEnv();
    addSearchDirs();

    log.debugStream() << "luaL_loadfile: " << abs_path;
    if (luaL_loadfilex(_L, abs_path, nullptr) != LUA_OK) {  // chunk, or error
        logLuaError();
        return JobResult(false, "Dock command service error. Failed to load command script.");
    }
    loadArgs(args);  // chunk

    // What the script cannot take is there for its failure.
    if (!hold_memory_reserve()) {
        log.error("No memory is left for the script");
        return JobResult(false,
                         "Dock command service error. Failed to allocate resources for job.");
    }
    log.debugStream() << "lua_pcall: " << abs_path;
    lua_gc(_L, LUA_GCRESTART, 0);
    if (lua_pcall(_L, 0, LUA_MULTRET, 0) != LUA_OK) {  // results, or error
        logLuaError();
        return JobResult(false,
                         "Dock command service error. Command script failure, please consult "
                         "pex-command logs.");
    }
    JobResult result(true, "");
    unloadAnswer(result.getAnswer());
    return result;
}

void LuaVM::addPexEnv()
{
    lua_createtable(_L, 0, 0);            // pexenv
    lua_pushstring(_L, _staging_dir);     // pexenv dir
    lua_setfield(_L, -2, "staging_dir");  // pexenv
    lua_setglobal(_L, "pexenv");          //
}

void LuaVM::addSearchDirs()
{
    lua_getglobal(_L, "package");  // package
    append_templates(_L, "path", _search_dirs, "?.lua");
    append_templates(_L, "cpath", _search_dirs, "?.so");
    lua_pop(_L, 1);  //
}

void LuaVM::logLuaError()
{
    const int num_errs = lua_gettop(_L);
    log.debug("logLuaError: num_errs = %d", num_errs);
    if (num_errs == 0) {
        return;
    }
    lua_pushvalue(_L, -1);  // error copy; lua_tostring turns a number into a string in place
    if (const char* text = lua_tostring(_L, -1)) {
        log.errorStream() << "failure: " << text;
    } else {
        log.error("Unknown failure");
    }
    lua_pop(_L, 1);  // error
}

void LuaVM::loadArgs(const msgpack::v2::object& args)
{
    log.debug("loading args onto Lua stack");
    const std::string args_buff = pack(args);

    PackToLuaConverter converter(_L);
    std::size_t off = 0;
    msgpack::v2::parse(args_buff.data(), args_buff.size(), off, converter);  // chunk args
    lua_setglobal(_L, "args");                                               // chunk
}

void LuaVM::unloadAnswer(std::vector<unsigned char>& answer)
{
    const int num_returns = lua_gettop(_L);
    log.debugStream() << "Returned " << num_returns << " lua objects";
    if (num_returns < 1) {
        return;
    }
    // Type first: lua_tolstring turns a number into a string in place, and the log must say
    // "number".
    const int type = lua_type(_L, -1);
    std::size_t answer_len = 0;
    const char* bytes = lua_tolstring(_L, -1, &answer_len);
    log.debugStream() << "answer type: " << lua_typename(_L, type) << " length: " << answer_len;
    if (answer_len > 0) {
        answer.insert(answer.end(), bytes, bytes + answer_len);
    }
}

}  // namespace pex
