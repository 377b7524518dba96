#include "lua_tools/lua_vm.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <sstream>
#include <string_view>

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

/// Calls `function` with the pointer `input`, protected. Returns whether it succeeded: then its
/// `results` are on the stack, otherwise Lua's error value is.
bool call_protected(lua_State* L, lua_CFunction function, const void* input, int results)
{
    lua_pushcfunction(L, function);                      // function
    lua_pushlightuserdata(L, const_cast<void*>(input));  // function input
    return lua_pcall(L, 1, results, 0) == LUA_OK;        // results, or error
}

/// Calls a step of the set-up, protected. Throws std::bad_alloc if it fails, for which a lack of
/// memory is the only cause. Leaves the stack as it was.
void set_up(lua_State* L, lua_CFunction step, const void* input)
{
    if (!call_protected(L, step, input, 0)) {  // error
        lua_pop(L, 1);                         //
        throw std::bad_alloc();
    }
}

// The functions that are called protected. An error of Lua leaves them by longjmp, so they hold no
// object that has a destructor.

int open_libraries(lua_State* L)
{
    // Globals with room for the libraries' names, or the table grows seven times.
    lua_createtable(L, 0, 64);                            // input globals
    lua_rawseti(L, LUA_REGISTRYINDEX, LUA_RIDX_GLOBALS);  // input
    luaL_openlibs(L);
    return 0;
}

int set_pexenv(lua_State* L)
{
    const char* staging_dir = static_cast<const char*>(lua_touserdata(L, 1));
    lua_createtable(L, 0, 0);            // dir pexenv
    lua_pushstring(L, staging_dir);      // dir pexenv dir
    lua_setfield(L, -2, "staging_dir");  // dir pexenv
    lua_setglobal(L, "pexenv");          // dir
    return 0;
}

/// Appends ";" + dir + `pattern` per directory to the string field `name` of the table on top of
/// the stack. Leaves the stack as it was.
void append_templates(lua_State* L, const char* name, const std::vector<std::string>& dirs,
                      const char* pattern)
{
    lua_getfield(L, -1, name);  // package path
    for (const std::string& dir : dirs) {
        lua_pushstring(L, ";");          // package path ;
        lua_pushstring(L, dir.c_str());  // package path ; dir
        lua_pushstring(L, pattern);      // package path ; dir pattern
        lua_concat(L, 4);                // package path
    }
    lua_setfield(L, -2, name);  // package
}

int append_search_dirs(lua_State* L)
{
    const auto* dirs = static_cast<const std::vector<std::string>*>(lua_touserdata(L, 1));
    lua_getglobal(L, "package");  // dirs package
    append_templates(L, "path", *dirs, "?.lua");
    append_templates(L, "cpath", *dirs, "?.so");
    return 0;
}

int load_script(lua_State* L)
{
    const char* path = static_cast<const char*>(lua_touserdata(L, 1));
    if (luaL_loadfilex(L, path, nullptr) != LUA_OK) {  // path chunk, or path error
        return lua_error(L);
    }
    return 1;
}

/// The text of a string, or of a number as Lua writes it; with null data for any other value. A
/// number's text is in `buffer`: lua_tolstring() would make it a Lua string, which needs memory.
std::string_view text_of(lua_State* L, int index, char (&buffer)[LUAI_MAXNUMBER2STR])
{
    if (lua_type(L, index) == LUA_TNUMBER) {
        const int size = lua_number2str(buffer, lua_tonumber(L, index));
        return {buffer, static_cast<std::size_t>(size)};
    }
    std::size_t size = 0;
    const char* text = lua_tolstring(L, index, &size);
    return {text, size};
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
    if (_L != nullptr) {
        lua_setallocf(_L, &LuaPool::allocate, &_pool);
        lua_gc(_L, LUA_GCSTOP, 0);  // until the script runs, nothing is garbage
        if (call_protected(_L, open_libraries, nullptr, 0)) {
            return true;
        }
        close();
    }
    log.error("Failed to create a new Lua instance.");
    return false;
}

void LuaVM::close()
{
    if (_L != nullptr) {
        lua_close(_L);
        _L = nullptr;
    }
}

bool LuaVM::prepare()
{
    if (_L == nullptr && !open()) {
        return false;
    }
    try {
        addPexEnv();
        addSearchDirs();
        return true;
    } catch (const std::bad_alloc&) {
        close();
        log.error("Failed to create a new Lua instance.");
        return false;
    }
}

JobResult LuaVM::executeScript(const char* abs_path, const msgpack::object& args)
{
    if (!prepare()) {
        return JobResult(false,
                         "Dock command service error. Failed to allocate resources for job.");
    }
    log.debugStream() << "luaL_loadfile: " << abs_path;
    if (!call_protected(_L, load_script, abs_path, 1)) {  // chunk, or error
        logLuaError();
        return JobResult(false, "Dock command service error. Failed to load command script.");
    }
    loadArgs(args);  // chunk

    log.debugStream() << "lua_pcall: " << abs_path;
    // What the script cannot take is there for its failure. Right before the call, since any
    // `operator new` in between could use it up.
    if (!hold_memory_reserve()) {
        close();  // frees memory for the record
        log.error("No memory is left for the script");
        return JobResult(false,
                         "Dock command service error. Failed to allocate resources for job.");
    }
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
    set_up(_L, set_pexenv, _staging_dir);
}

void LuaVM::addSearchDirs()
{
    set_up(_L, append_search_dirs, &_search_dirs);
}

void LuaVM::logLuaError()
{
    const int num_errs = lua_gettop(_L);
    log.debug("logLuaError: num_errs = %d", num_errs);
    if (num_errs == 0) {
        return;
    }
    char number[LUAI_MAXNUMBER2STR];
    if (const char* text = text_of(_L, -1, number).data()) {
        log.errorStream() << "failure: " << text;  // up to its first zero byte
    } else {
        log.error("Unknown failure");
    }
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
    char number[LUAI_MAXNUMBER2STR];
    const std::string_view text = text_of(_L, -1, number);
    log.debugStream() << "answer type: " << luaL_typename(_L, -1) << " length: " << text.size();
    answer.insert(answer.end(), text.begin(), text.end());
}

}  // namespace pex
