-- Keeps a file in the staging directory. It appears there complete or not at all.
--
-- Request: {"lua_script": "keep_file", "args": {"name": "dock.conf", "content": <str or bin>}}
-- Answer:  {"status": true, "path": "/var/lib/pex-command/staging/dock.conf", "size": 120}
-- Failure: {"status": false, "script": "keep_file", "reason": "..."}
--
-- A request may be run twice. Here the second run replaces the file by an equal one.
--
-- Needs Debian's package lua-messagepack.

local mp = require "MessagePack"

-- Whatever is not listed is refused: a slash, which could lead out of the directory, a zero byte,
-- which would end the name, and a leading dot, which the temporary name has.
local name_pattern = "^[A-Za-z0-9_][A-Za-z0-9_.-]*$"

-- File systems allow 255 bytes, and the temporary name takes 6 of them.
local longest_name = 249

-- Writes all of `content`. Returns true, or nil and the reason.
local function write(path, content)
    local file, problem = io.open(path, "wb")
    if not file then
        return nil, problem
    end
    local written
    written, problem = file:write(content)
    -- A full disk may show only here, when the last bytes leave the buffer.
    local closed, close_problem = file:close()
    return written and closed, problem or close_problem
end

-- Returns the file's path, or nil and the reason.
local function keep(name, content)
    local path = pexenv.staging_dir .. "/" .. name
    -- In the same directory, since a rename works within one file system only.
    local temporary = pexenv.staging_dir .. "/." .. name .. ".part"
    local done, problem = write(temporary, content)
    if done then
        done, problem = os.rename(temporary, path)
    end
    if not done then
        os.remove(temporary)
        return nil, path .. ": " .. problem
    end
    return path
end

local function failure(reason)
    return mp.pack({ status = false, script = "keep_file", reason = reason })
end

if type(args) ~= "table" then
    return failure("args must be a map, got " .. type(args))
end
local name, content = args.name, args.content
if type(name) ~= "string" or #name > longest_name or not name:find(name_pattern) then
    return failure("args.name must be a plain file name")
end
if type(content) ~= "string" then
    return failure("args.content must be a string, got " .. type(content))
end
local path, reason = keep(name, content)
if not path then
    return failure(reason)
end
return mp.pack({ status = true, path = path, size = #content })
