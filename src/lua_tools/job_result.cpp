#include "lua_tools/job_result.h"

namespace pex {

JobResult::JobResult() : status(false) {}

JobResult::JobResult(bool status, const std::string& reason) : status(status), reason(reason) {}

JobResult::~JobResult() = default;

void JobResult::setStatus(bool new_status)
{
    status = new_status;
}

void JobResult::setReason(const std::string& new_reason)
{
    reason = new_reason;
}

std::vector<unsigned char>& JobResult::getAnswer()
{
    return answer;
}

bool JobResult::getStatus() const
{
    return status;
}

const char* JobResult::getReason() const
{
    return reason.c_str();
}

void JobResult::msgpack_unpack(const msgpack::object& object)
{
    if (object.type != msgpack::type::MAP || object.via.map.size != 2) {
        throw msgpack::type_error();
    }
    const msgpack::object_kv* entries = object.via.map.ptr;
    if (entries[0].key.as<std::string>() != "status" ||
        entries[1].key.as<std::string>() != "reason") {
        throw msgpack::type_error();
    }
    const bool new_status = entries[0].val.as<bool>();
    reason = entries[1].val.as<std::string>();
    status = new_status;
    answer.clear();
}

}  // namespace pex
