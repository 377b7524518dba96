// A configuration file: the service reads it as log4cpp does. docs/configuration.md names the one
// difference: the service refuses a file with a NUL byte.

#include "properties.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <istream>
#include <map>
#include <sstream>

#include "expect.h"

namespace log4cpp {

/// The library's own reader, which it does not offer in a header: as much of it as is used here.
class Properties : public std::map<std::string, std::string> {
public:
    Properties();
    virtual ~Properties();
    void load(std::istream& in);
};

}  // namespace log4cpp

namespace {

using fuzz::expect;

const char* const missing = "(missing)";

/// The whole decimal number that `text` is, or `otherwise`; by hand, with white space in front and
/// one sign, as strtol(3) takes them.
int number(const std::string& text, int otherwise)
{
    std::size_t i = text.find_first_not_of(" \t\n\v\f\r");
    if (i == std::string::npos) {
        return otherwise;
    }
    const bool negative = text[i] == '-';
    i += negative || text[i] == '+' ? 1 : 0;
    const bool only_digits =
        i < text.size() && text.find_first_not_of("0123456789", i) == std::string::npos;
    if (!only_digits) {
        return otherwise;
    }
    std::int64_t value = 0;
    for (; i < text.size() && value <= 2147483648; ++i) {
        value = 10 * value + (text[i] - '0');
    }
    value = negative ? -value : value;
    return value < -2147483648LL || value > 2147483647 ? otherwise : static_cast<int>(value);
}

/// The path of a file in memory; it lasts until the next call.
std::string file_with(const std::string& content)
{
    static const int file = memfd_create("service.properties", MFD_CLOEXEC);
    const bool written =
        ftruncate(file, 0) == 0 &&
        pwrite(file, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size());
    expect(written, "a file in memory can be written");
    return "/proc/self/fd/" + std::to_string(file);
}

void expect_nothing(const cProperties& service)
{
    expect(service.lines().empty(), "a file that is refused leaves no lines behind");
    expect(service.getString("rootCategory", nullptr) == nullptr, "nor a key");
}

void expect_the_same(const log4cpp::Properties& library, const cProperties& service)
{
    for (const auto& [key, value] : library) {
        // As C strings: an environment variable is the only other source, and holds no NUL either.
        fuzz::expect_equal("a key of the library has the same value in the service: " + key, value,
                           service.getString(key.c_str(), missing));
        fuzz::expect_equal("a whole decimal number in the range of int, or the default",
                           std::to_string(number(value, 99)),
                           std::to_string(service.getInt(key.c_str(), 99)));
    }
    int last = 0;
    for (const cProperties::Line& line : service.lines()) {
        expect(!line.assigns || library.count(line.key) == 1,
               "a key of the service is one of the library: " + line.key);
        expect(line.number > last, "lines are numbered upwards");
        last = line.number;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const int is_set = setenv("PEX_FUZZ", " #${x} = 7 ", 1);
    expect(is_set == 0, "the environment can be set");

    const std::string content(data, data + size);
    cProperties service;
    const bool loaded = service.load(file_with(content).c_str());
    expect(loaded == (content.find('\0') == std::string::npos),
           "every file without a NUL byte can be loaded");
    if (!loaded) {
        expect_nothing(service);
        return 0;
    }
    log4cpp::Properties library;
    std::istringstream stream(content);
    library.load(stream);
    expect_the_same(library, service);
    return 0;
}
