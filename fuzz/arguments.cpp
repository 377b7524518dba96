// One MessagePack object as a script's arguments: what the script sees of it is what
// docs/scripting.md says, and pexctl names what is lost.

#include "pexctl/arguments.h"

#include <cstdint>
#include <msgpack.hpp>

#include "expect.h"
#include "lua_panic.h"
#include "lua_tools/lua_vm.h"
#include "script_view.h"
#include "support/temp_dir.h"

namespace {

using fuzz::Ending;
using fuzz::expect;

/// The object, with what the daemon's decoder says of it.
Ending unpack(const std::string& bytes, msgpack::object_handle& object)
{
    try {
        object = msgpack::unpack(bytes.data(), bytes.size());
        return Ending::whole;
    } catch (const msgpack::insufficient_bytes&) {
        return Ending::cut_off;
    } catch (const msgpack::parse_error&) {
        return Ending::malformed;
    }
}

std::string seen_by_script(const msgpack::object& args)
{
    static const TempDir folder;
    static const std::string script = folder.write("show.lua", fuzz::show_args);
    try {
        pex::LuaVM vm({folder.path() + "/"}, "/staging");
        pex::JobResult result = vm.executeScript(script.c_str(), args);
        expect(result.getStatus(), "the script runs to its end");
        return {result.getAnswer().begin(), result.getAnswer().end()};
    } catch (const fuzz::LuaPanic&) {
        return "(panic)";
    }
}

void expect_losses_named(const std::string& bytes, const fuzz::Reading& reading)
{
    const bool is_whole = reading.ending == Ending::whole && reading.size == bytes.size();
    try {
        const pexctl::Arguments arguments = pexctl::arguments_from_msgpack(bytes);
        expect(is_whole, "pexctl refuses what is not one whole object");
        fuzz::expect_equal("pexctl names each key that would end the daemon",
                           std::to_string(deadly_keys(reading.object)),
                           std::to_string(arguments.deadly.size()));
        if (arguments.deadly.empty()) {
            fuzz::expect_equal("pexctl names each loss once",
                               std::to_string(losses(reading.object)),
                               std::to_string(arguments.losses.size()));
        }
    } catch (const pexctl::BadArguments&) {
        expect(!is_whole, "pexctl takes one whole object");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string bytes(data, data + size);
    const fuzz::Reading reading = fuzz::read_wire(bytes);
    expect_losses_named(bytes, reading);

    msgpack::object_handle args;
    try {
        expect(unpack(bytes, args) == reading.ending, "both decoders end in the same way");
    } catch (const std::bad_alloc&) {
        expect(reading.announces_much, "only a huge array or map needs more memory than there is");
        return 0;
    } catch (const msgpack::size_overflow&) {  // on 32-bit machines
        expect(reading.ending == Ending::cut_off, "only what is cut off is too large");
        return 0;
    }
    const bool panics = reading.ending == Ending::whole && deadly_keys(reading.object) > 0;
    if (reading.ending == Ending::whole && (fuzz::can_survive_panic || !panics)) {
        fuzz::expect_equal("the script sees what was sent, by the rules of docs/scripting.md",
                           panics ? "(panic)" : shown(reading.object), seen_by_script(args.get()));
    }
    return 0;
}
