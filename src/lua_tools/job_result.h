#pragma once

#include <msgpack.hpp>
#include <string>
#include <vector>

namespace pex {

/// The outcome of one job: the script's answer bytes, or a failure with a
/// reason for the server. A plain value; copies are independent.
class JobResult {
public:
    /// A failure without a reason.
    JobResult();
    JobResult(bool status, const std::string& reason);
    virtual ~JobResult();
    JobResult(const JobResult&) = default;
    JobResult& operator=(const JobResult&) = default;
    JobResult(JobResult&&) = default;  // or each return of a result would copy its answer
    JobResult& operator=(JobResult&&) = default;

    void setStatus(bool status);
    void setReason(const std::string& reason);

    /// The answer bytes, to be filled or read in place.
    std::vector<unsigned char>& getAnswer();
    bool getStatus() const;
    /// Never null; valid while this result lives and its reason is not replaced.
    /// As a C string it ends at the first zero byte of the reason.
    const char* getReason() const;

    /// Takes status and reason from the failure map {"status": bool, "reason": str}, in that
    /// order, and empties the answer. Anything of another shape raises msgpack::type_error and
    /// leaves this result unchanged.
    void msgpack_unpack(const msgpack::object& object);

private:
    std::vector<unsigned char> answer;  ///< empty unless the script ran to its end
    bool status;                        ///< found, loaded and ran without a Lua error
    std::string reason;                 ///< empty on success
};

}  // namespace pex
