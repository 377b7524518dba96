-- Adds numbers up, and shows what to check before arguments are trusted.
--
-- Request: {"lua_script": "sum", "args": {"count": 3, "numbers": [1, 2.5, "5000000000"]}}
-- Answer:  {"status": true, "sum": 5000000003.5}
-- Failure: {"status": false, "script": "sum", "reason": "args.numbers[2] is a boolean"}
--
-- Numbers may be lost on the way in, without a trace:
--   integers keep 32 bits         4294967296 arrives as 0
--   floats keep single precision  0.1 arrives as 0.100000001490116, 1e300 as infinity
--   nil elements vanish           [1, nil, 3] arrives as {1, 3}
-- So whatever may be large or must be exact comes as text, and the number of elements comes too.
--
-- Needs Debian's package lua-messagepack.

local mp = require "MessagePack"

-- Beyond 2^53 a Lua number does not hold every integer.
local largest_exact = 2 ^ 53

-- The number that `value` stands for, or nil and what is wrong with it.
local function to_number(value)
    local number = value
    if type(value) == "string" then
        number = tonumber(value)
        if not number then
            return nil, "is not a number"
        end
    elseif type(value) ~= "number" then
        return nil, "is a " .. type(value)
    end
    -- NaN fails every comparison, so this refuses it together with what is too large.
    if not (math.abs(number) <= largest_exact) then
        return nil, "is out of range"
    end
    return number
end

local function sum()
    if type(args) ~= "table" then
        return nil, "args must be a map, got " .. type(args)
    end
    local numbers, count = args.numbers, args.count
    if type(numbers) ~= "table" then
        return nil, "args.numbers must be an array, got " .. type(numbers)
    end
    if type(count) ~= "number" then
        return nil, "args.count must be a number, got " .. type(count)
    end
    local total, seen = 0, 0
    for i, value in ipairs(numbers) do
        local number, problem = to_number(value)
        if not number then
            return nil, ("args.numbers[%d] %s"):format(i, problem)
        end
        total, seen = total + number, i
        if math.abs(total) > largest_exact then
            return nil, "the sum is out of range"
        end
    end
    if seen ~= count then
        return nil, "args.numbers has " .. seen .. " elements, not " .. count
    end
    return total
end

-- A request that cannot be served is an answer of its own, since an error would reach the server as
-- one fixed reason. Errors are left to mistakes in the script, which belong into the log.
local total, reason = sum()
if not total then
    return mp.pack({ status = false, script = "sum", reason = reason })
end
return mp.pack({ status = true, sum = total })
