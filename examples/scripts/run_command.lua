-- Runs one of a few system commands and answers with what it printed and how it ended.
--
-- Request: {"lua_script": "run_command", "args": {"command": "disk_space", "operands": ["/var"]}}
-- Answer:  {"status": true, "output": "Filesystem ...", "ended_by": "exit", "code": 0}
-- Failure: {"status": false, "script": "run_command", "reason": "no such command: reboot"}
--
-- A command that fails still has a status of true: it was run. "ended_by" is "exit" with the exit
-- code, or "signal" with the signal's number. The time limit ends a command with exit code 124, or
-- with signal 9 if it had to be killed. Exit code 127 means that the program is not installed.
--
-- Needs Debian's package lua-messagepack.

local mp = require "MessagePack"

-- The server chooses from this list, and nothing else is run. "--" ends the options, so that an
-- operand which begins with "-" is not taken for one.
local commands = {
    disk_space = "df -P --",
    listing = "ls -l --",
    name = "getent hosts --",
}

-- A blocked script blocks the service: no other request is served until it returns.
local time_limit_s = 20

-- Between single quotes the shell takes every byte for itself; only the quote needs a detour.
local function quote(text)
    return "'" .. text:gsub("'", [['\'']]) .. "'"
end

-- Builds the shell's command line, or returns nil and what is wrong with the arguments.
local function command_line()
    if type(args) ~= "table" then
        return nil, "args must be a map, got " .. type(args)
    end
    local line = commands[args.command]
    if not line then
        return nil, "no such command: " .. tostring(args.command)
    end
    local operands = args.operands or {}
    if type(operands) ~= "table" then
        return nil, "args.operands must be an array, got " .. type(operands)
    end
    for i, operand in ipairs(operands) do
        -- The command line would end at a zero byte.
        if type(operand) ~= "string" or operand:find("\0", 1, true) then
            return nil, ("args.operands[%d] must be a string without zero bytes"):format(i)
        end
        line = line .. " " .. quote(operand)
    end
    return line
end

-- Returns the output, "exit" or "signal", and the code; or nil and the reason.
local function run(line)
    line = ("exec timeout -k 5 %d %s </dev/null 2>&1"):format(time_limit_s, line)
    local pipe, problem = io.popen(line, "r")
    if not pipe then
        return nil, problem
    end
    local output
    output, problem = pipe:read("*a")
    -- Closing waits for the command. Its first result is nil for any code but 0.
    local _, ended_by, code = pipe:close()
    if not output then
        -- A signal to the service, such as its stop, interrupts the read.
        return nil, "reading the output: " .. problem
    end
    return output, ended_by, code
end

local function failure(reason)
    return mp.pack({ status = false, script = "run_command", reason = reason })
end

local line, problem = command_line()
if not line then
    return failure(problem)
end
local output, ended_by, code = run(line)
if not output then
    return failure(ended_by)
end
return mp.pack({ status = true, output = output, ended_by = ended_by, code = code })
