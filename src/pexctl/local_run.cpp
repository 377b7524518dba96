#include "pexctl/local_run.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>

#include "command_handler.h"
#include "pexctl/failure.h"
#include "pexctl/near_name.h"
#include "pexctl/temporary_dir.h"
#include "pexctl/terminal.h"
#include "server_comms.h"

namespace pexctl {

namespace {

namespace fs = std::filesystem;

constexpr const char* job_id = "pexctl";
const std::string extension = ".lua";

/// A broker client without a broker: keeps what the command handler publishes.
class ResultKeeper : public mqlink::Client {
public:
    ResultKeeper() : mqlink::Client({job_id, true, false}, job_id) {}

    int publish(int* /*mid*/, const char* topic, int payloadlen, const void* payload, int /*qos*/,
                bool /*retain*/) override
    {
        if (!fitsPacket(topic, payloadlen)) {
            return MOSQ_ERR_PAYLOAD_SIZE;
        }
        const char* bytes = static_cast<const char*>(payload);
        result.emplace(bytes == nullptr ? "" : bytes, static_cast<std::size_t>(payloadlen));
        return MOSQ_ERR_SUCCESS;
    }

    std::optional<std::string> result;
};

/// A staging directory for one run.
class StagingDir {
public:
    StagingDir() : _path(make_temporary_dir()) {}
    ~StagingDir()
    {
        if (rmdir(_path.c_str()) != 0) {
            note("The script left files in " + _path);
        }
    }
    StagingDir(const StagingDir&) = delete;
    StagingDir& operator=(const StagingDir&) = delete;

    const std::string& path() const { return _path; }

private:
    std::string _path;
};

/// Has the process ignore SIGPIPE, as the daemon does for its scripts and their children; later the
/// reader of the answer may hang up as that of any command.
class SigpipeIgnored {
public:
    SigpipeIgnored() : _before(std::signal(SIGPIPE, SIG_IGN)) {}
    ~SigpipeIgnored() { std::signal(SIGPIPE, _before); }
    SigpipeIgnored(const SigpipeIgnored&) = delete;
    SigpipeIgnored& operator=(const SigpipeIgnored&) = delete;

private:
    void (*_before)(int);
};

bool script_is_running = false;
std::unique_ptr<StagingDir> own_staging_dir;

/// os.exit() comes here, by way of exit(3).
void end_of_process()
{
    if (script_is_running) {
        std::fflush(nullptr);  // as exit(3) would have done next
        own_staging_dir.reset();
        note("The script called os.exit. It would have ended the daemon, without a result.");
        std::_Exit(job_failed);
    }
}

std::vector<std::string> directories(const LocalSetup& setup)
{
    if (!setup.search_dirs.empty()) {
        return setup.search_dirs;
    }
    return {(fs::current_path() / "job_scripts").string()};
}

}  // namespace

std::string name_script_file(const std::string& path, LocalSetup& setup)
{
    const fs::path file(path);
    if (file.extension() != extension) {
        throw Failure(wrong_usage, path + ": the name of a script file ends in .lua");
    }
    std::error_code problem;
    if (!fs::exists(file, problem)) {
        throw Failure(wrong_usage,
                      path + ": " + (problem ? problem.message() : "No such file or directory"));
    }
    const std::string directory = file.has_parent_path() ? file.parent_path().string() : ".";
    setup.search_dirs.insert(setup.search_dirs.begin(), pex::clean_dir_path(directory));
    return file.stem().string();
}

std::string run_locally(const std::string& request, const LocalSetup& setup)
{
    if (!setup.staging_dir) {
        own_staging_dir = std::make_unique<StagingDir>();
    }
    const std::string staging_dir =
        setup.staging_dir.value_or(own_staging_dir ? own_staging_dir->path() : "");
    pex::CommandHandler handler(job_id, setup.search_dirs, staging_dir.c_str());
    const auto vars =
        mqlink::FilterVariables::match(handler.topicFilter(), std::string("in/cmd/") + job_id);
    const SigpipeIgnored sigpipe_ignored;  // before the keeper, which would ignore it for good
    ResultKeeper keeper;
    mosquitto_message message = {};
    message.payload = const_cast<char*>(request.data());
    message.payloadlen = static_cast<int>(request.size());

    std::atexit(end_of_process);
    const StdoutToStderr redirection;
    script_is_running = true;
    handler.onMessage(*vars, &message, keeper);
    script_is_running = false;
    own_staging_dir.reset();
    if (!keeper.result) {
        throw Failure(job_failed, "The answer is too large to be published.");
    }
    return *keeper.result;
}

std::vector<std::string> script_names(const LocalSetup& setup)
{
    std::set<std::string> names;
    for (const std::string& directory : directories(setup)) {
        std::error_code problem;
        for (const auto& entry : fs::directory_iterator(directory, problem)) {
            if (entry.path().extension() == extension) {
                names.insert(entry.path().stem().string());
            }
        }
    }
    return {names.begin(), names.end()};
}

std::string not_found_help(const std::string& name, const LocalSetup& setup)
{
    std::string text = "Looked for " + name + extension + " in";
    for (const std::string& directory : directories(setup)) {
        text += " " + directory;
    }
    const std::vector<std::string> near = near_names(name, script_names(setup));
    for (std::size_t i = 0; i < near.size(); ++i) {
        text += (i == 0 ? ". Near names: " : ", ") + near[i];
    }
    return text;
}

}  // namespace pexctl
