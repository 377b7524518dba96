// The same bytes as JSON text and as MessagePack: what pexctl packs is what was written, and what
// it writes is JSON that says what was packed; docs/pexctl.md has both forms.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <msgpack.hpp>

#include "expect.h"
#include "json_model.h"
#include "pexctl/arguments.h"
#include "pexctl/json_writer.h"
#include "script_view.h"

namespace {

using fuzz::expect;
using Json = nlohmann::ordered_json;

bool shows_on_a_terminal(const std::string& text)
{
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        const bool is_c1 = c == 0xc2 && static_cast<unsigned char>(text[i + 1]) < 0xa0;
        if ((c < 0x20 && c != '\n') || c == 0x7f || is_c1) {
            return false;
        }
    }
    return true;
}

void expect_written(const std::string& packed)
{
    const fuzz::Reading reading = fuzz::read_wire(packed);
    if (reading.ending != fuzz::Ending::whole || depth(reading.object) > 512) {
        return;  // pexctl does not show these as JSON
    }
    const msgpack::object_handle object = msgpack::unpack(packed.data(), packed.size());
    const std::string line = pexctl::json_line(object.get(), SIZE_MAX);
    for (const std::string& text : {line, pexctl::indented_json(object.get())}) {
        expect(Json::accept(text), "what pexctl writes is JSON: " + text);
        expect(fuzz::says(Json::parse(text), reading.object), "it says what was packed: " + text);
        expect(shows_on_a_terminal(text), "a terminal can show it: " + text);
    }
    expect(pexctl::json_line(object.get(), 0).size() <= line.size(), "a limit adds nothing");
}

/// Numbers of the text, outside strings, without fraction or exponent, that are no integer of 64
/// bits and which a float 64 does not hold.
std::size_t rounded_numbers(const std::string& json)
{
    std::size_t count = 0;
    for (std::size_t i = 0; i < json.size(); ++i) {
        if (json[i] == '"') {
            while (json[++i] != '"') {
                i += json[i] == '\\' ? 1 : 0;
            }
            continue;
        }
        const std::string number = json.substr(i, json.find_first_not_of("-+0123456789.eE", i) - i);
        const bool whole = number.find_first_not_of("-0123456789") == std::string::npos;
        if (!number.empty() && json[i] != 'e') {  // "true" and "false" have one
            char exact[400];
            std::snprintf(exact, sizeof exact, "%.0f", std::strtod(number.c_str(), nullptr));
            count += whole && Json::parse(number).is_number_float() && exact != number ? 1 : 0;
            i += number.size() - 1;
        }
    }
    return count;
}

void expect_packed(const std::string& text)
{
    const Json json = Json::parse(text, nullptr, false);
    // The parser takes a zero byte for the end of the text, whatever comes behind it.
    const bool is_json = !json.is_discarded() && text.find('\0') == std::string::npos;
    pexctl::Arguments arguments;
    try {
        arguments = pexctl::arguments_from_json(text);
    } catch (const pexctl::BadArguments&) {
        expect(!is_json, "pexctl takes what is JSON");
        return;
    }
    expect(is_json, "pexctl refuses what is no JSON");
    const fuzz::Reading reading = fuzz::read_wire(arguments.packed);
    expect(reading.ending == fuzz::Ending::whole && reading.size == arguments.packed.size(),
           "pexctl packs one whole object");
    expect(fuzz::is_written_as(reading.object, json), "the JSON is what is packed");
    expect(arguments.deadly.empty(), "no JSON ends the daemon");
    fuzz::expect_equal("pexctl names each loss once",
                       std::to_string(losses(reading.object) + rounded_numbers(text)),
                       std::to_string(arguments.losses.size()));
    expect_written(arguments.packed);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string bytes(data, data + size);
    expect_packed(bytes);
    expect_written(bytes);
    return 0;
}
