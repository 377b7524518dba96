#pragma once

/// C functions that cannot be made to fail otherwise. A binary that uses this links with
/// --wrap for each of them.
namespace failing_calls {

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

}  // namespace failing_calls
