#pragma once

/// C functions that cannot be made to fail otherwise. A binary that uses this links with
/// --wrap=readdir64, --wrap=luaL_newstate, --wrap=malloc and --wrap=realloc; read() is defined
/// here, for the C++ library to find.
namespace failing_calls {

/// While it lives, read() fails with `error` after `bytes` bytes were read.
class Read {
public:
    Read(int error, unsigned long bytes);
    ~Read();
    Read(const Read&) = delete;
    Read& operator=(const Read&) = delete;
};

/// While it lives, readdir fails with `error` after `entries` entries were read.
class Readdir {
public:
    Readdir(int error, int entries);
    ~Readdir();
    Readdir(const Readdir&) = delete;
    Readdir& operator=(const Readdir&) = delete;
};

/// While it lives, luaL_newstate returns null, as it does without memory.
class NewState {
public:
    NewState();
    ~NewState();
    NewState(const NewState&) = delete;
    NewState& operator=(const NewState&) = delete;
};

/// While it lives, the project's own malloc and realloc calls return null.
class Malloc {
public:
    Malloc();
    ~Malloc();
    Malloc(const Malloc&) = delete;
    Malloc& operator=(const Malloc&) = delete;
};

}  // namespace failing_calls
