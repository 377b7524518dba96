#include "pexctl/arguments.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <msgpack.hpp>
#include <nlohmann/json.hpp>
#include <set>

namespace pexctl {

namespace {

using Json = nlohmann::json;

/// "line 2, column 7", both from 1, for an offset in bytes.
std::string place(const std::string& text, std::size_t offset)
{
    const auto begin = text.begin();
    const auto end = begin + static_cast<std::ptrdiff_t>(std::min(offset, text.size()));
    const auto line = std::count(begin, end, '\n') + 1;
    const std::size_t line_begin = offset == 0 ? 0 : text.rfind('\n', offset - 1) + 1;
    return "line " + std::to_string(line) + ", column " + std::to_string(offset - line_begin + 1);
}

/// Packs the values of a JSON text as they come. The heads of arrays and maps, whose sizes show
/// only at their ends, are put in afterwards, so depth costs neither stack nor time.
class JsonPacker : public nlohmann::json_sax<Json> {
public:
    explicit JsonPacker(const std::string& text) : _text(text), _packer(_values) {}

    bool null() override
    {
        return value([this] { _packer.pack_nil(); });
    }
    bool boolean(bool v) override
    {
        return value([&] { _packer.pack(v); });
    }
    bool number_integer(std::int64_t v) override
    {
        return value([&] { _packer.pack(v); });
    }
    bool number_unsigned(std::uint64_t v) override
    {
        return value([&] { _packer.pack(v); });
    }
    bool number_float(double v, const std::string& written) override
    {
        const bool whole = written.find_first_of(".eE") == std::string::npos;
        if (whole && exact_text(v) != written) {
            _losses.push_back(written + " is sent as " + exact_text(v));
        }
        return value([&] { write_float64(v); });
    }
    bool string(std::string& v) override
    {
        return value([&] { _packer.pack(v); });
    }
    bool binary(Json::binary_t&) override { return false; }  // not in a text

    bool start_object(std::size_t) override { return open(true); }
    bool key(std::string& name) override
    {
        _packer.pack(name);
        return true;
    }
    bool end_object() override { return close(); }
    bool start_array(std::size_t) override { return open(false); }
    bool end_array() override { return close(); }

    bool parse_error(std::size_t position, const std::string&,
                     const nlohmann::detail::exception& problem) override
    {
        // "[json.exception.parse_error.101] parse error at line 1, column 2: REASON"
        std::string reason = problem.what();
        reason.erase(0, reason.find("] ") + 2);
        if (reason.compare(0, 11, "parse error") == 0) {
            reason.erase(0, reason.find(": ") + 2);
        }
        throw BadArguments("JSON, " + place(_text, position == 0 ? 0 : position - 1) + ": " +
                           reason);
    }

    std::string packed() const
    {
        msgpack::sbuffer result;
        msgpack::packer<msgpack::sbuffer> heads(result);
        std::size_t done = 0;
        for (const Container& container : _containers) {
            result.write(_values.data() + done, container.offset - done);
            done = container.offset;
            container.is_map ? heads.pack_map(container.size) : heads.pack_array(container.size);
        }
        result.write(_values.data() + done, _values.size() - done);
        return {result.data(), result.size()};
    }

    const std::vector<std::string>& losses() const { return _losses; }

private:
    struct Container {
        std::size_t offset;  ///< of its first value
        bool is_map;
        std::uint32_t size;
    };
    static std::string exact_text(double v)
    {
        char text[400];  // 309 digits and a sign
        std::snprintf(text, sizeof text, "%.0f", v);
        return text;
    }

    /// The library's packer would turn an integral float into an integer, which the script gets
    /// with 32 bits only.
    void write_float64(double v)
    {
        std::uint64_t bits;
        std::memcpy(&bits, &v, sizeof bits);
        char packed[9] = {'\xcb'};
        for (int i = 0; i < 8; ++i) {
            packed[1 + i] = static_cast<char>(bits >> (56 - 8 * i) & 0xff);
        }
        _values.write(packed, sizeof packed);
    }

    template <typename Pack>
    bool value(Pack pack)
    {
        count();
        pack();
        return true;
    }

    void count()
    {
        if (!_open.empty()) {
            ++_containers[_open.back()].size;
        }
    }

    bool open(bool is_map)
    {
        count();
        _open.push_back(_containers.size());
        _containers.push_back({_values.size(), is_map, 0});
        return true;
    }

    bool close()
    {
        _open.pop_back();
        return true;
    }

    const std::string& _text;
    msgpack::sbuffer _values;
    msgpack::packer<msgpack::sbuffer> _packer;
    std::vector<Container> _containers;
    std::vector<std::size_t> _open;  ///< indices of the containers that have not ended
    std::vector<std::string> _losses;
};

std::string number_text(double v)
{
    if (std::isinf(v)) {
        return v < 0 ? "-infinity" : "infinity";
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.15g", v);
    return text;
}

/// A map's key as a step of a JSONPath (RFC 9535, section 2.7 has the quoted form).
std::string path_step(const std::string& key)
{
    constexpr std::size_t longest = 40;
    const auto is_letter = [](char c) {
        return std::isalpha(static_cast<unsigned char>(c)) || c == '_';
    };
    const bool is_name = !key.empty() && is_letter(key[0]) && key.size() <= longest &&
                         std::all_of(key.begin(), key.end(), [&](char c) {
                             return is_letter(c) || std::isdigit(static_cast<unsigned char>(c));
                         });
    if (is_name) {
        return "." + key;
    }
    std::string step = "['";
    for (const char c : key.substr(0, longest)) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(c));
        const bool plain = c >= ' ' && c != 0x7f;
        step += c == '\'' || c == '\\' ? std::string("\\") + c
                : plain                ? std::string(1, c)
                                       : escaped;
    }
    return step + (key.size() > longest ? "...']" : "']");
}

/// Walks arguments as the daemon's converter does and notes what becomes of them.
class Inspector : public msgpack::null_visitor {
public:
    explicit Inspector(Arguments& arguments) : _arguments(arguments) {}

    bool visit_nil()
    {
        if (is_key()) {
            _arguments.deadly.push_back(path() + ": nil as a key would end the daemon");
            set_key("[nil]", "");
        } else if (!_open.empty() && !_open.back().is_map) {
            const bool is_last = _open.back().index + 1 == _open.back().size;
            lose(is_last ? "null vanishes" : "null vanishes, later elements move up");
        }
        return true;
    }
    bool visit_boolean(bool v) { return scalar(v ? "[true]" : "[false]", v ? "true" : "false"); }
    bool visit_positive_integer(std::uint64_t v)
    {
        return number(std::to_string(v), static_cast<std::uint32_t>(v) == v,
                      static_cast<std::uint32_t>(v));
    }
    bool visit_negative_integer(std::int64_t v)
    {
        if (v >= 0) {  // the parser goes by the format; the daemon by the value
            return visit_positive_integer(static_cast<std::uint64_t>(v));
        }
        return number(std::to_string(v), static_cast<std::int32_t>(v) == v,
                      static_cast<std::int32_t>(v));
    }
    bool visit_float32(float v) { return visit_float64(v); }
    bool visit_float64(double v)
    {
        const double narrowed = static_cast<float>(v);
        if (is_key() && std::isnan(v)) {
            _arguments.deadly.push_back(path() + ": NaN as a key would end the daemon");
        }
        return number(Json(v).dump(), std::isnan(v) || narrowed == v, narrowed);
    }
    bool visit_str(const char* bytes, std::uint32_t size)
    {
        return !is_key() || scalar(path_step({bytes, size}), "'" + std::string(bytes, size));
    }
    bool visit_bin(const char* bytes, std::uint32_t size) { return visit_str(bytes, size); }
    bool visit_ext(const char* bytes, std::uint32_t size)
    {
        visit_str(bytes, size);
        lose("an extension type arrives as a string of " + std::to_string(size) +
             " bytes, its type first");
        return true;
    }

    bool start_array(std::uint32_t size) { return open(false, size); }
    bool end_array_item()
    {
        ++_open.back().index;
        return true;
    }
    bool end_array() { return close(); }
    bool start_map(std::uint32_t size) { return open(true, size); }
    bool start_map_key()
    {
        _open.back().in_key = true;
        return true;
    }
    bool end_map_key()
    {
        _open.back().in_key = false;
        return true;
    }
    bool end_map() { return close(); }

    void parse_error(std::size_t, std::size_t offset)
    {
        throw BadArguments("They are not MessagePack at byte " + std::to_string(offset) + ".");
    }
    void insufficient_bytes(std::size_t, std::size_t offset)
    {
        throw BadArguments("The MessagePack ends too early, at byte " + std::to_string(offset) +
                           ".");
    }

private:
    struct Open {
        bool is_map;
        std::uint32_t size;
        std::uint32_t index = 0;  ///< of an array's element
        bool in_key = false;
        std::string key;             ///< of a map's present entry, as a step of a path
        std::set<std::string> keys;  ///< as Lua tells them apart
    };

    bool is_key() const { return !_open.empty() && _open.back().in_key; }

    bool scalar(const std::string& step, const std::string& lua_key)
    {
        if (is_key()) {
            set_key(step, lua_key);
        }
        return true;
    }

    bool number(const std::string& sent, bool is_same, double arrives)
    {
        // To Lua, zeros of both signs are one key.
        scalar("[" + sent + "]", "#" + number_text(arrives == 0 ? 0 : arrives));
        if (!is_same) {
            lose(sent + " arrives as " + number_text(arrives));
        }
        return true;
    }

    void set_key(const std::string& step, const std::string& lua_key)
    {
        _open.back().key = step;
        if (!_open.back().keys.insert(lua_key).second) {
            lose("the same key as one before it: the last one counts");
        }
    }

    void lose(const std::string& text) { _arguments.losses.push_back(path() + ": " + text); }

    bool open(bool is_map, std::uint32_t size)
    {
        scalar("[table]", "table " + std::to_string(_tables++));
        _open.push_back({is_map, size, 0, false, "", {}});
        return true;
    }

    bool close()
    {
        _open.pop_back();
        return true;
    }

    std::string path() const
    {
        constexpr std::size_t longest = 32;
        std::string text = "$";
        for (std::size_t i = 0; i < _open.size(); ++i) {
            if (_open.size() > longest && i == longest / 2) {
                text += "...";
                i = _open.size() - longest / 2;
            }
            text += _open[i].is_map ? _open[i].key : "[" + std::to_string(_open[i].index) + "]";
        }
        return text;
    }

    Arguments& _arguments;
    std::vector<Open> _open;
    std::size_t _tables = 0;
};

void inspect(Arguments& arguments)
{
    Inspector inspector(arguments);
    std::size_t end = 0;
    try {
        msgpack::v2::parse(arguments.packed.data(), arguments.packed.size(), end, inspector);
    } catch (const msgpack::size_overflow&) {  // on 32-bit machines
        throw BadArguments("The MessagePack announces more than this machine can address.");
    }
    if (end != arguments.packed.size()) {
        throw BadArguments("There are " + std::to_string(arguments.packed.size() - end) +
                           " bytes more after the MessagePack, from byte " + std::to_string(end) +
                           " on.");
    }
}

}  // namespace

Arguments arguments_from_json(const std::string& text)
{
    JsonPacker packer(text);
    Json::sax_parse(text, &packer);
    // The parser takes a zero byte for the end of the text.
    const std::size_t zero = text.find('\0');
    if (zero != std::string::npos) {
        throw BadArguments("JSON, " + place(text, zero) + ": a zero byte");
    }
    Arguments arguments{packer.packed(), packer.losses(), {}};
    inspect(arguments);
    return arguments;
}

Arguments arguments_from_msgpack(const std::string& bytes)
{
    Arguments arguments{bytes, {}, {}};
    inspect(arguments);
    return arguments;
}

}  // namespace pexctl
