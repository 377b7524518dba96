-- Tells about the machine, from /proc, as a MessagePack map. The arguments are ignored.
--
-- Request: {"lua_script": "machine", "args": null}
-- Answer:  {"status": true, "hostname": "dock-7", "kernel": "6.1.0-18-armmp", "uptime_s": 86400.25,
--           "load": [0.5, 0.25, 0.1], "memory_kb": {"total": 504312, "available": 401220}}
--
-- Needs Debian's package lua-messagepack.

local mp = require "MessagePack"

-- None of these files can be missing on a sound machine. So failures are plain errors here, which
-- end the job and tell the log; assert() passes on the text that the io functions return.
local function read_file(path)
    local file = assert(io.open(path, "rb"))
    local content = assert(file:read("*a"))
    file:close()
    return content
end

-- Returns what `pattern` matches in the file.
local function find(path, pattern)
    return read_file(path):match(pattern) or error(path .. ": unexpected content", 0)
end

local function find_number(path, pattern)
    return tonumber(find(path, pattern)) or error(path .. ": not a number", 0)
end

return mp.pack({
    status = true,
    hostname = find("/proc/sys/kernel/hostname", "%S+"),
    kernel = find("/proc/sys/kernel/osrelease", "%S+"),
    uptime_s = find_number("/proc/uptime", "^%S+"),
    load = {
        find_number("/proc/loadavg", "^(%S+)"),
        find_number("/proc/loadavg", "^%S+ (%S+)"),
        find_number("/proc/loadavg", "^%S+ %S+ (%S+)"),
    },
    memory_kb = {
        total = find_number("/proc/meminfo", "MemTotal:%s+(%d+) kB"),
        available = find_number("/proc/meminfo", "MemAvailable:%s+(%d+) kB"),
    },
})
