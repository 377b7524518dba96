-- Answers with plain text: a script's answer is whatever bytes it returns.
--
-- Request: {"lua_script": "greet", "args": {"name": "dock 7"}}
-- Answer:  Hello, dock 7!

-- args may be of any type, and indexing nil would be an error of its own.
local name = type(args) == "table" and args.name

-- An error ends the job. Its text goes to the service's log alone; the server gets a fixed reason.
-- Level 0 leaves out the file and the line, which say nothing about a bad request.
if type(name) ~= "string" or name == "" then
    error("greet: args.name must be a non-empty string", 0)
end

return "Hello, " .. name .. "!"
