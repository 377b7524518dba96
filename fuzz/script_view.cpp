#include "script_view.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <set>
#include <vector>

namespace fuzz {

namespace {

using Kind = Wire::Kind;

/// The number that a script gets.
double arriving(const Wire& number)
{
    if (number.is_float()) {
        return static_cast<float>(number.number);
    }
    const std::uint64_t low = number.integer & 0xffffffffU;
    const bool below_zero = number.negative && low >= 0x80000000U;
    return static_cast<double>(low) - (below_zero ? 4294967296.0 : 0.0);
}

std::string number_text(double number)
{
    if (std::isnan(number)) {
        return "nan";
    }
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", number);
    return text;
}

bool is_deadly(const Wire& key)
{
    return key.kind == Kind::nil || (key.is_float() && std::isnan(key.number));
}

bool is_container(const Wire& object)
{
    return object.kind == Kind::array || object.kind == Kind::map;
}

/// Lua has one zero for both signs among its keys.
std::string key_text(const Wire& key)
{
    const std::string text = shown(key);
    return text == "-0" ? "0" : text;
}

std::string table_text(std::vector<std::string> entries)
{
    std::sort(entries.begin(), entries.end());
    std::string text;
    for (const std::string& entry : entries) {
        text += text.empty() ? "" : ",";
        text += entry;
    }
    return "{" + text + "}";
}

std::string array_text(const Wire& array)
{
    std::vector<std::string> entries;
    for (const Wire& item : array.items) {
        if (item.kind != Kind::nil) {
            entries.push_back(std::to_string(entries.size() + 1) + "=" + shown(item));
        }
    }
    return table_text(entries);
}

std::string map_text(const Wire& map)
{
    std::vector<std::string> entries;
    std::map<std::string, std::string> values;
    for (std::size_t i = 0; i < map.items.size(); i += 2) {
        const Wire& value = map.items[i + 1];
        const std::string key = key_text(map.items[i]);
        if (is_container(map.items[i])) {  // each table is a key of its own
            if (value.kind != Kind::nil) {
                entries.push_back(key + "=" + shown(value));
            }
        } else if (value.kind == Kind::nil) {
            values.erase(key);
        } else {
            values[key] = shown(value);
        }
    }
    for (const auto& [key, value] : values) {
        entries.push_back(key);
        entries.back() += "=";
        entries.back() += value;
    }
    return table_text(entries);
}

bool changes(const Wire& object)
{
    const bool outside_32_bits =
        object.kind == Kind::integer &&
        (object.negative ? object.integer < 0xffffffff80000000U : object.integer > 0xffffffffU);
    const bool rounded =
        object.is_float() && !std::isnan(object.number) && arriving(object) != object.number;
    return outside_32_bits || rounded || object.kind == Kind::ext;
}

std::size_t repeated_keys(const Wire& map)
{
    std::set<std::string> seen;
    std::size_t count = 0;
    for (std::size_t i = 0; i < map.items.size(); i += 2) {
        const bool is_new =
            is_container(map.items[i]) || seen.insert(key_text(map.items[i])).second;
        count += is_new ? 0 : 1;
    }
    return count;
}

}  // namespace

const char* const show_args = R"(
local function text(value)
    if type(value) == "string" then
        return "s" .. #value .. ":" .. value
    elseif type(value) == "number" then
        return value ~= value and "nan" or ("%.17g"):format(value)
    elseif type(value) ~= "table" then
        return tostring(value)
    end
    local entries = {}
    for key, entry in pairs(value) do
        entries[#entries + 1] = (key == 0 and "0" or text(key)) .. "=" .. text(entry)
    end
    table.sort(entries)
    return "{" .. table.concat(entries, ",") .. "}"
end
return text(args)
)";

std::string shown(const Wire& args)
{
    switch (args.kind) {
        case Kind::nil:
            return "nil";
        case Kind::boolean:
            return args.truth ? "true" : "false";
        case Kind::integer:
        case Kind::float32:
        case Kind::float64:
            return number_text(arriving(args));
        case Kind::array:
            return array_text(args);
        case Kind::map:
            return map_text(args);
        default:
            return "s" + std::to_string(args.bytes.size()) + ":" + args.bytes;
    }
}

std::size_t deadly_keys(const Wire& args)
{
    std::size_t count = 0;
    for (std::size_t i = 0; i < args.items.size(); ++i) {
        const bool is_key = args.kind == Kind::map && i % 2 == 0;
        count += deadly_keys(args.items[i]) + (is_key && is_deadly(args.items[i]) ? 1 : 0);
    }
    return count;
}

std::size_t losses(const Wire& args)
{
    std::size_t count = changes(args) ? 1 : 0;
    for (const Wire& item : args.items) {
        const bool vanishes = args.kind == Kind::array && item.kind == Kind::nil;
        count += losses(item) + (vanishes ? 1 : 0);
    }
    return count + (args.kind == Kind::map ? repeated_keys(args) : 0);
}

}  // namespace fuzz
