#include "support/failing_calls.h"

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <lua.hpp>

namespace {

int read_error = 0;
std::size_t read_bytes = 0;
int readdir_error = 0;
int readdir_entries = 0;
bool newstate_fails = false;
bool malloc_fails = false;

}  // namespace

extern "C" {

// The project is built with 64-bit file offsets, where readdir() is readdir64().
dirent* __real_readdir64(DIR* directory);
dirent* __wrap_readdir64(DIR* directory);
lua_State* __real_luaL_newstate();
lua_State* __wrap_luaL_newstate();
void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size);
void* __real_realloc(void* block, size_t size);
void* __wrap_realloc(void* block, size_t size);

ssize_t read(int descriptor, void* buffer, size_t size)
{
    if (read_error != 0) {
        if (read_bytes == 0) {
            errno = read_error;
            return -1;
        }
        size = std::min(size, read_bytes);
        read_bytes -= size;
    }
    return syscall(SYS_read, descriptor, buffer, size);
}

dirent* __wrap_readdir64(DIR* directory)
{
    if (readdir_error != 0 && readdir_entries-- <= 0) {
        errno = readdir_error;
        return nullptr;
    }
    dirent* entry = __real_readdir64(directory);
    if (entry != nullptr) {
        errno = ENOTTY;  // POSIX leaves open what a call that succeeded does to it
    }
    return entry;
}

lua_State* __wrap_luaL_newstate()
{
    return newstate_fails ? nullptr : __real_luaL_newstate();
}

void* __wrap_malloc(size_t size)
{
    return malloc_fails ? nullptr : __real_malloc(size);
}

void* __wrap_realloc(void* block, size_t size)
{
    return malloc_fails ? nullptr : __real_realloc(block, size);
}

}  // extern "C"

namespace failing_calls {

Read::Read(int error, unsigned long bytes)
{
    read_error = error;
    read_bytes = bytes;
}

Read::~Read()
{
    read_error = 0;
}

Readdir::Readdir(int error, int entries)
{
    readdir_error = error;
    readdir_entries = entries;
}

Readdir::~Readdir()
{
    readdir_error = 0;
}

NewState::NewState()
{
    newstate_fails = true;
}

NewState::~NewState()
{
    newstate_fails = false;
}

Malloc::Malloc()
{
    malloc_fails = true;
}

Malloc::~Malloc()
{
    malloc_fails = false;
}

}  // namespace failing_calls
