#include "json_model.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <set>
#include <utility>

namespace fuzz {

namespace {

using Json = nlohmann::ordered_json;
using Kind = Wire::Kind;

bool is_utf8(const std::string& text)
{
    return Json::accept(Json(text).dump(-1, ' ', false, Json::error_handler_t::replace)) &&
           Json::parse(Json(text).dump(-1, ' ', false, Json::error_handler_t::replace)) == text;
}

std::string hex(const std::string& bytes)
{
    std::string text;
    for (const char byte : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        text += digits;
    }
    return text;
}

bool says_float(const Json& json, const Wire& object)
{
    if (!std::isfinite(object.number)) {
        const char* name = std::isnan(object.number) ? "nan" : object.number < 0 ? "-inf" : "inf";
        return json == Json{{"$float", name}};
    }
    if (!json.is_number_float()) {
        return false;
    }
    const auto value = json.get<double>();
    const bool same_sign = std::signbit(value) == std::signbit(object.number);
    return same_sign &&
           (object.kind == Kind::float32 ? static_cast<float>(value) : value) == object.number;
}

bool says_integer(const Json& json, const Wire& object)
{
    if (json.is_number_unsigned()) {
        return !object.negative && json.get<std::uint64_t>() == object.integer;
    }
    // The DOM has -0 as a signed integer.
    return json.is_number_integer() && (object.negative || object.integer == 0) &&
           static_cast<std::uint64_t>(json.get<std::int64_t>()) == object.integer;
}

bool says_bytes(const Json& json, const Wire& object)
{
    if (object.kind == Kind::ext) {
        const int type = static_cast<signed char>(object.bytes[0]);
        return json == Json{{"$ext", Json::array({type, hex(object.bytes.substr(1))})}};
    }
    if (object.kind == Kind::str && is_utf8(object.bytes)) {
        return json.is_string() && json.get<std::string>() == object.bytes;
    }
    return json == Json{{object.kind == Kind::bin ? "$bin" : "$str", hex(object.bytes)}};
}

/// Whether docs/pexctl.md has a map as a JSON object: different keys, all of them UTF-8 str
/// without a '$' at the front.
bool is_object(const Wire& map)
{
    std::set<std::string> names;
    for (std::size_t i = 0; i < map.items.size(); i += 2) {
        const Wire& key = map.items[i];
        if (key.kind != Kind::str || !is_utf8(key.bytes) || key.bytes.substr(0, 1) == "$" ||
            !names.insert(key.bytes).second) {
            return false;
        }
    }
    return true;
}

bool says_map(const Json& json, const Wire& map)
{
    const bool plain = is_object(map);
    if (!json.is_object() || (!plain && (json.size() != 1 || json.begin().key() != "$map"))) {
        return false;
    }
    const Json& entries = plain ? json : json.begin().value();
    if (2 * entries.size() != map.items.size()) {
        return false;
    }
    std::size_t i = 0;
    for (auto entry = entries.begin(); entry != entries.end(); ++entry, i += 2) {
        const bool same = plain
                              ? entry.key() == map.items[i].bytes && says(*entry, map.items[i + 1])
                              : entry->size() == 2 && says((*entry)[0], map.items[i]) &&
                                    says((*entry)[1], map.items[i + 1]);
        if (!same) {
            return false;
        }
    }
    return true;
}

bool says_array(const Json& json, const Wire& array)
{
    if (!json.is_array() || json.size() != array.items.size()) {
        return false;
    }
    for (std::size_t i = 0; i < json.size(); ++i) {
        if (!says(json[i], array.items[i])) {
            return false;
        }
    }
    return true;
}

/// A DOM has one entry for equal keys, in the place of the first and with the value of the last.
Wire without_repeated_keys(Wire object)
{
    std::vector<Wire> items;
    for (std::size_t i = 0; i < object.items.size(); ++i) {
        bool repeated = false;
        for (std::size_t old = 0; object.kind == Kind::map && i % 2 == 0 && old < items.size();
             old += 2) {
            if (items[old].bytes == object.items[i].bytes) {
                items[old + 1] = without_repeated_keys(object.items[++i]);
                repeated = true;
                break;
            }
        }
        if (!repeated) {
            items.push_back(without_repeated_keys(object.items[i]));
        }
    }
    object.items = std::move(items);
    return object;
}

bool is_packed_as(const Wire& object, const Json& json)
{
    if (object.kind != Kind::map && object.kind != Kind::array) {
        return says(json, object);
    }
    const bool is_map = object.kind == Kind::map;
    if ((is_map ? !json.is_object() : !json.is_array()) ||
        object.items.size() != json.size() * (is_map ? 2 : 1)) {
        return false;
    }
    std::size_t i = 0;
    for (auto entry = json.begin(); entry != json.end(); ++entry) {
        if (is_map && object.items[i++].bytes != entry.key()) {
            return false;
        }
        if (!is_packed_as(object.items[i++], *entry)) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool says(const Json& json, const Wire& object)
{
    switch (object.kind) {
        case Kind::nil:
            return json.is_null();
        case Kind::boolean:
            return json == object.truth && json.is_boolean();
        case Kind::integer:
            return says_integer(json, object);
        case Kind::float32:
        case Kind::float64:
            return says_float(json, object);
        case Kind::array:
            return says_array(json, object);
        case Kind::map:
            return says_map(json, object);
        default:
            return says_bytes(json, object);
    }
}

bool is_written_as(const Wire& object, const Json& json)
{
    return is_packed_as(without_repeated_keys(object), json);
}

}  // namespace fuzz
