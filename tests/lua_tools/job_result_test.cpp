#include "lua_tools/job_result.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace pex {
namespace {

using namespace std::string_literals;
using Bytes = std::vector<unsigned char>;

static_assert(std::has_virtual_destructor_v<JobResult>);
static_assert(std::is_copy_constructible_v<JobResult> && std::is_copy_assignable_v<JobResult>);
// Which a copy is not: it may run out of memory.
static_assert(std::is_nothrow_move_constructible_v<JobResult>);
static_assert(std::is_nothrow_move_assignable_v<JobResult>);

TEST(JobResultTest, IsAFailureWithoutAReasonByDefault)
{
    JobResult result;
    EXPECT_FALSE(result.getStatus());
    EXPECT_STREQ("", result.getReason());  // never null
    EXPECT_EQ(Bytes(), result.getAnswer());
}

TEST(JobResultTest, IsMadeFromAStatusAndAReason)
{
    JobResult success(true, "");
    EXPECT_TRUE(success.getStatus());
    EXPECT_STREQ("", success.getReason());
    EXPECT_EQ(Bytes(), success.getAnswer());

    std::string reason = "Script not found";
    JobResult failure(false, reason);
    reason = "changed";
    EXPECT_FALSE(failure.getStatus());
    EXPECT_STREQ("Script not found", failure.getReason());
    EXPECT_EQ(Bytes(), failure.getAnswer());
}

TEST(JobResultTest, StatusAndReasonCanBeReplaced)
{
    JobResult result(false, "first");
    result.setStatus(true);
    EXPECT_TRUE(result.getStatus());
    EXPECT_STREQ("first", result.getReason());
    result.setReason("second");
    EXPECT_STREQ("second", result.getReason());
    EXPECT_TRUE(result.getStatus());
    result.setStatus(false);
    EXPECT_FALSE(result.getStatus());
    result.setReason("");
    EXPECT_STREQ("", result.getReason());
}

TEST(JobResultTest, TheAnswerIsFilledInPlace)
{
    JobResult result(true, "");
    result.getAnswer().push_back(0x00);
    result.getAnswer().push_back(0xff);
    EXPECT_EQ((Bytes{0x00, 0xff}), result.getAnswer());
}

TEST(JobResultTest, ACopyIsIndependent)
{
    JobResult first(true, "reason");
    first.getAnswer() = {1, 2, 3};
    JobResult copy = first;
    EXPECT_EQ((Bytes{1, 2, 3}), copy.getAnswer());
    EXPECT_TRUE(copy.getStatus());
    EXPECT_STREQ("reason", copy.getReason());

    copy.getAnswer()[0] = 9;
    copy.setStatus(false);
    copy.setReason("other");
    EXPECT_EQ((Bytes{1, 2, 3}), first.getAnswer());
    EXPECT_TRUE(first.getStatus());
    EXPECT_STREQ("reason", first.getReason());
}

TEST(JobResultTest, TheReasonEndsAtItsFirstZeroByte)
{
    const JobResult result(false, "not found \"a\0b\""s);
    EXPECT_STREQ("not found \"a", result.getReason());
}

msgpack::object_handle unpacked(const std::string& bytes)
{
    return msgpack::unpack(bytes.data(), bytes.size());
}

TEST(JobResultTest, ReadsTheFailureMap)
{
    const struct {
        const char* fact;
        std::string bytes;
        bool status;
        const char* reason;
    } cases[] = {
        {"a failure",
         "\x82\xa6status\xc2\xa6reason\xab"
         "parse error",
         false, "parse error"},
        {"a success", "\x82\xa6status\xc3\xa6reason\xa0", true, ""},
        {"bin instead of str", "\x82\xc4\x06status\xc3\xc4\x06reason\xc4\x02no", true, "no"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        JobResult result(!c.status, "before");
        result.getAnswer() = {1, 2, 3};
        result.msgpack_unpack(unpacked(c.bytes).get());
        EXPECT_EQ(c.status, result.getStatus());
        EXPECT_STREQ(c.reason, result.getReason());
        EXPECT_EQ(Bytes(), result.getAnswer());
    }
}

TEST(JobResultTest, IsConvertedToByTheLibrary)
{
    const auto handle = unpacked("\x82\xa6status\xc3\xa6reason\xa2no");
    const auto result = handle.get().as<JobResult>();
    EXPECT_TRUE(result.getStatus());
    EXPECT_STREQ("no", result.getReason());
    EXPECT_THROW(unpacked("\x90").get().as<JobResult>(), msgpack::type_error);
}

TEST(JobResultTest, AnotherShapeRaisesATypeErrorAndChangesNothing)
{
    const struct {
        const char* fact;
        std::string bytes;
    } cases[] = {
        {"nil", "\xc0"},
        {"a string", "\xa6status"},
        {"an empty array", "\x90"},
        {"an array of the four", "\x94\xa6status\xc3\xa6reason\xa2no"},
        {"an empty map", "\x80"},
        {"the status alone", "\x81\xa6status\xc3"},
        {"the reason alone", "\x81\xa6reason\xa2no"},
        {"a third entry", "\x83\xa6status\xc3\xa6reason\xa2no\xa1x\xc0"},
        {"another order", "\x82\xa6reason\xa2no\xa6status\xc3"},
        {"another first key", "\x82\xa6Status\xc3\xa6reason\xa2no"},
        {"another second key", "\x82\xa6status\xc3\xa6reasom\xa2no"},
        {"a key that is no text", "\x82\x01\xc3\xa6reason\xa2no"},
        {"a second key that is no text", "\x82\xa6status\xc3\x01\xa2no"},
        {"a status that is no boolean", "\x82\xa6status\x01\xa6reason\xa2no"},
        {"a status that is nil", "\x82\xa6status\xc0\xa6reason\xa2no"},
        {"a reason that is no text", "\x82\xa6status\xc3\xa6reason\xc0"},
        {"a reason that is a number", "\x82\xa6status\xc3\xa6reason\x01"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fact);
        JobResult result(false, "before");
        result.getAnswer() = {1, 2, 3};
        EXPECT_THROW(result.msgpack_unpack(unpacked(c.bytes).get()), msgpack::type_error);
        EXPECT_FALSE(result.getStatus());
        EXPECT_STREQ("before", result.getReason());
        EXPECT_EQ((Bytes{1, 2, 3}), result.getAnswer());
    }
}

}  // namespace
}  // namespace pex
