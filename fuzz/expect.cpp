#include "expect.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

// An array may announce more elements than there is memory. The service then says so, and the
// sanitizer is not to end the process before.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

namespace fuzz {

namespace {

void print(const char* name, const std::string& text)
{
    std::fprintf(stderr, "  %s: ", name);
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        std::fprintf(stderr, std::isprint(byte) != 0 && c != '\\' ? "%c" : "\\x%02x", byte);
    }
    std::fprintf(stderr, "\n");
}

}  // namespace

void expect(bool holds, const std::string& promise)
{
    if (!holds) {
        std::fprintf(stderr, "FINDING, this does not hold: %s\n", promise.c_str());
        std::abort();
    }
}

void expect_equal(const std::string& promise, const std::string& expected,
                  const std::string& actual)
{
    if (expected != actual) {
        print("expected", expected);
        print("actual  ", actual);
        expect(false, promise);
    }
}

}  // namespace fuzz
