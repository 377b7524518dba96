#include <mosquittopp.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "pexctl/arguments.h"
#include "pexctl/command_line.h"
#include "pexctl/jobs.h"
#include "pexctl/local_run.h"
#include "pexctl/setup_check.h"
#include "pexctl/terminal.h"
#include "properties.h"
#include "server_comms.h"

namespace pex {

// The daemon's event loop, which nothing here runs, would stop at 0.
volatile sig_atomic_t program_running = 1;

}  // namespace pex

namespace pexctl {

namespace {

constexpr std::size_t losses_shown = 10;

/// The content of a file, or of standard input for "-".
std::string read_all(const std::string& path)
{
    std::FILE* const file = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
    const auto fail = [&] { throw Failure(wrong_usage, path + ": " + std::strerror(errno)); };
    if (file == nullptr) {
        fail();
    }
    std::string content;
    char buffer[65536];
    while (const std::size_t size = std::fread(buffer, 1, sizeof buffer, file)) {
        content.append(buffer, size);
    }
    if (std::ferror(file) != 0) {
        fail();
    }
    if (file != stdin) {
        std::fclose(file);
    }
    return content;
}

Arguments read_arguments(const CommandLine& line)
{
    if (line.msgpack_file) {
        const std::string bytes = read_all(*line.msgpack_file);
        try {
            return arguments_from_msgpack(bytes);
        } catch (const BadArguments&) {
            if (!line.force) {
                throw;
            }
        }
        return {bytes, {}, {}};
    }
    const std::string text = line.args.value_or("null");
    if (text == "-") {
        return arguments_from_json(read_all(text));
    }
    return arguments_from_json(text[0] == '@' ? read_all(text.substr(1)) : text);
}

/// Tells what the script will not get as it was written, and refuses what would end the daemon.
void report(const Arguments& arguments, bool force)
{
    for (std::size_t i = 0; i < arguments.losses.size() && i < losses_shown; ++i) {
        note(arguments.losses[i]);
    }
    if (arguments.losses.size() > losses_shown) {
        note("and " + std::to_string(arguments.losses.size() - losses_shown) + " more");
    }
    for (const std::string& text : arguments.deadly) {
        note(text);
    }
    if (!arguments.deadly.empty() && !force) {
        throw Failure(wrong_usage, "These arguments would end the daemon. Nothing was done.");
    }
}

/// The request that the command line asks for.
std::string make_request(const CommandLine& line, const std::string& script)
{
    const Arguments arguments = [&] {
        try {
            return read_arguments(line);
        } catch (const BadArguments& bad) {
            throw Failure(wrong_usage, std::string("The arguments are wrong. ") + bad.what());
        }
    }();
    report(arguments, line.force);
    return request_payload(script, arguments.packed);
}

cProperties load_config(const std::optional<std::string>& path)
{
    cProperties config;
    if (path && !config.load(path->c_str())) {
        throw Failure(wrong_usage, "Config file: " + *path + " failed to load.");
    }
    return config;
}

/// A directory of the command line wins over the configuration's.
LocalSetup local_setup(const CommandLine& line)
{
    const cProperties config = load_config(line.config_file);
    LocalSetup setup;
    setup.search_dirs =
        pex::ServerCommunicator::parse_search_dirs(config.getString("script.search_dirs", nullptr));
    if (!line.search_dirs.empty()) {
        setup.search_dirs.clear();
        for (const std::string& directory : line.search_dirs) {
            setup.search_dirs.push_back(pex::clean_dir_path(directory));
        }
    }
    const char* staging_dir = config.getString("script.staging_dir", nullptr);
    if (line.staging_dir) {
        setup.staging_dir = line.staging_dir;
    } else if (staging_dir != nullptr) {
        setup.staging_dir = staging_dir;
    } else if (line.config_file) {
        throw Failure(wrong_usage,
                      *line.config_file + ": script.staging_dir has not been configured");
    }
    return setup;
}

bool is_path(const std::string& script)
{
    const bool has_extension =
        script.size() > 4 && script.compare(script.size() - 4, 4, ".lua") == 0;
    return has_extension || script.find('/') != std::string::npos;
}

ExitStatus run(const CommandLine& line)
{
    LocalSetup setup = local_setup(line);
    const std::string name =
        is_path(line.script) ? name_script_file(line.script, setup) : line.script;
    const std::string request = make_request(line, name);
    log_to_stderr(line.trace);
    const std::string payload = run_locally(request, setup);
    const ExitStatus status = show_result(payload, line.job.view);
    const Verdict verdict = verdict_of(payload);
    if (verdict.reason == "Cannot run job. Script not found \"" + name + ".lua\"") {
        note(not_found_help(name, setup));
    }
    return status;
}

Connection connection_of(const CommandLine& line)
{
    const cProperties config = load_config(line.config_file);
    Connection connection = line.connection;
    const int default_port = connection.uses_tls() ? 8883 : 1883;
    const int configured_port = config.getInt("server_comms.port", default_port);
    connection.host = line.host.value_or(config.getString("server_comms.host", "localhost"));
    // The configuration's port 0 belongs to the Unix socket that is its host.
    connection.port =
        line.port.value_or(line.host && configured_port == 0 ? default_port : configured_port);
    return connection;
}

ExitStatus submit(const CommandLine& line)
{
    if (is_path(line.script)) {
        note("The service looks for a script named " + line.script +
             ".lua in its directories: a name has neither a path nor .lua.");
    }
    JobOptions job = line.job;
    if (job.id.empty()) {
        job.id = random_job_id();
        job.has_new_id = true;
    }
    return submit(connection_of(line), make_request(line, line.script), line.request, job);
}

ExitStatus check(const CommandLine& line)
{
    const SetupReport report = check_setup(*line.config_file, line.config_only);
    bool would_fail = false;
    for (const Finding& finding : report.findings) {
        const bool is_error = finding.level == Finding::error;
        would_fail = would_fail || is_error;
        write_all(STDOUT_FILENO, (is_error ? "error    " : "warning  ") + finding.where + ": " +
                                     finding.text + "\n");
    }
    if (report.findings.empty()) {
        const std::string counts =
            "Script directories: " + std::to_string(report.directories) +
            (line.config_only ? "" : ", scripts: " + std::to_string(report.scripts));
        write_all(STDOUT_FILENO, "Nothing to object to. " + counts + "\n");
    }
    return would_fail ? job_failed : job_succeeded;
}

ExitStatus print_script_names(const LocalSetup& setup)
{
    for (const std::string& name : script_names(setup)) {
        write_all(STDOUT_FILENO, name + "\n");
    }
    return job_succeeded;
}

ExitStatus execute(const CommandLine& line)
{
    if (line.command == "run") {
        return run(line);
    }
    if (line.command == "submit") {
        return submit(line);
    }
    if (line.command == "attach") {
        return attach(connection_of(line), line.job);
    }
    if (line.command == "withdraw") {
        return withdraw(connection_of(line), line.job);
    }
    if (line.command == "list") {
        return list(connection_of(line), line.job);
    }
    if (line.command == "check") {
        return check(line);
    }
    return print_script_names(local_setup(line));
}

}  // namespace

}  // namespace pexctl

int main(int argc, char* argv[])
{
    const pexctl::CommandLine line = pexctl::parse_command_line(argc, argv);
    mosqpp::lib_init();
    try {
        return pexctl::execute(line);
    } catch (const pexctl::Failure& failure) {
        pexctl::clear_progress();
        if (*failure.what() != '\0') {
            pexctl::note(failure.what());
        }
        return failure.status();
    } catch (const std::exception& error) {
        pexctl::note(error.what());
        return pexctl::wrong_usage;
    }
}
