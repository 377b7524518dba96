#include "pexctl/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <iostream>
#include <map>

namespace pexctl {

namespace {

constexpr const char* broker_group = "Broker";
constexpr int longest_job_id = 65535 - 8;  // a topic's limit, less "out/cmd/"

/// Help that fits a screen of 80 x 24: one line an option, and the broker's options, which are
/// mosquitto_pub's, without explanations.
class ScreenFormatter : public CLI::Formatter {
public:
    std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode) const override
    {
        std::string text = app->get_description() + "\nUsage: " + name;
        if (app->get_subcommands([](const CLI::App*) { return true; }).empty()) {
            text += command_usage(app);
        } else {
            text += " COMMAND [OPTIONS]\n" + commands(app);
        }
        return text + app->get_footer() + "\n";
    }

private:
    static std::string line(const std::string& left, const std::string& right)
    {
        return "  " + left + std::string(left.size() < 19 ? 19 - left.size() : 1, ' ') + right +
               "\n";
    }

    static std::string commands(const CLI::App* app)
    {
        std::string text;
        for (const CLI::App* command : app->get_subcommands(
                 [](const CLI::App* each) { return !each->get_group().empty(); })) {
            text += line(command->get_name(), command->get_description());
        }
        return text + line("COMMAND --help", "Explains a command.") +
               line("--version", "Shows the version.");
    }

    static std::string command_usage(const CLI::App* app)
    {
        std::string usage = app->get_options().size() > 2 ? " [OPTIONS]" : "";
        std::string lines;
        std::string broker;
        for (const CLI::Option* option : app->get_options()) {
            const std::string text = left_side(option);
            if (option->get_positional()) {
                usage += option->get_required() ? " " + text : " [" + text + "]";
                lines += line(text, option->get_description());
            } else if (option->get_group() == broker_group) {
                // Two lines, broken where the TLS files begin.
                broker += (broker.empty() || text == "--cafile FILE" ? "\n  " : "  ") + text;
            } else if (option != app->get_help_ptr()) {
                lines += line(text, option->get_description());
            }
        }
        if (!broker.empty()) {
            lines += "Broker, as with mosquitto_pub; more in pexctl(1):" + broker + "\n";
        }
        return usage + "\n" + lines;
    }

    /// "-W, --timeout S"; only the shorter name where the names have to stand in a row.
    static std::string left_side(const CLI::Option* option)
    {
        if (option->get_positional()) {
            return option->get_type_name();
        }
        const bool short_only =
            option->get_group() == broker_group && !option->get_snames().empty();
        std::string text = option->get_snames().empty() ? "" : "-" + option->get_snames().front();
        if (!short_only) {
            text += (text.empty() ? "--" : ", --") + option->get_lnames().front();
        }
        return text + (option->get_type_name().empty() ? "" : " " + option->get_type_name());
    }
};

void add_script_and_args(CLI::App* command, CommandLine& line, const char* script_text)
{
    command->add_option("SCRIPT", line.script, script_text)->required()->type_name("SCRIPT");
    auto* args =
        command
            ->add_option("ARGS", line.args, "arguments: JSON, @FILE, or - for stdin; null without")
            ->type_name("ARGS");
    command
        ->add_option("--msgpack", line.msgpack_file,
                     "arguments: MessagePack, sent as it is (- for stdin)")
        ->type_name("FILE")
        ->excludes(args);
    command->add_flag("--force", line.force, "send also what ends the daemon or is malformed");
}

void add_view(CLI::App* command, CommandLine& line)
{
    static const std::map<std::string, View> views = {{"auto", View::automatic},
                                                      {"text", View::text},
                                                      {"json", View::json},
                                                      {"hex", View::hex},
                                                      {"raw", View::raw}};
    command
        ->add_option_function<std::string>(
            "--as", [&line](const std::string& form) { line.job.view = views.at(form); },
            "show the answer as auto, text, json, hex or raw")
        ->check(CLI::IsMember(views).description(""))
        ->type_name("FORM");
}

CLI::Option* add_config(CLI::App* command, CommandLine& line)
{
    return command
        ->add_option("--config", line.config_file, "take it from the daemon's configuration")
        ->type_name("FILE");
}

void add_broker(CLI::App* command, CommandLine& line)
{
    const auto add = [&](const char* names, auto& value, const char* type) {
        return command->add_option(names, value)->type_name(type)->group(broker_group);
    };
    add("-h,--host", line.host, "HOST|SOCKET");
    add("-p,--port", line.port, "PORT")->check(CLI::Range(0, 65535).description(""));
    auto* user = add("-u,--username", line.connection.user, "USER");
    add("-P,--pw", line.connection.password, "PASSWORD")->needs(user);
    add_config(command, line)->group(broker_group);
    add("--cafile", line.connection.ca_file, "FILE");
    add("--capath", line.connection.ca_dir, "DIR");
    auto* cert = add("--cert", line.connection.cert_file, "FILE");
    auto* key = add("--key", line.connection.key_file, "FILE");
    cert->needs(key);
    key->needs(cert);
    command->add_flag("--insecure", line.connection.insecure)->group(broker_group);
}

void add_timeout(CLI::App* command, CommandLine& line)
{
    command
        ->add_option_function<int>(
            "-W,--timeout",
            [&line](int seconds) { line.job.timeout = std::chrono::seconds(seconds); },
            "give up after S seconds (60; 0: never)")
        ->check(CLI::Range(0, 1000000000).description(""))
        ->type_name("S");
}

/// As a level of a topic: MQTT 3.1.1, section 4.7.
std::string check_job_id(const std::string& id)
{
    const int size = static_cast<int>(std::min<std::size_t>(id.size(), INT_MAX));
    if (id.find_first_of("/+#") != std::string::npos) {
        return "a job id holds no '/', '+' or '#'";
    }
    if (mosquitto_validate_utf8(id.data(), size) != MOSQ_ERR_SUCCESS) {
        return "a job id is UTF-8 without control characters";
    }
    return size <= longest_job_id ? "" : "a job id has at most 65527 bytes";
}

void add_job_id(CLI::App* command, CommandLine& line)
{
    command->add_option("ID", line.job.id, "the job's id")
        ->required()
        ->check(check_job_id)
        ->type_name("ID");
}

void add_run(CLI::App& app, CommandLine& line)
{
    CLI::App* command =
        app.add_subcommand("run", "Runs a script here as the daemon would; prints its answer.");
    add_script_and_args(command, line, "a script's name, or the path of a file ending in .lua");
    add_view(command, line);
    command->add_option("--search-dir", line.search_dirs, "look for scripts here; may be repeated")
        ->type_name("DIR")
        ->allow_extra_args(false);
    command->add_option("--staging-dir", line.staging_dir, "the script's pexenv.staging_dir")
        ->type_name("DIR");
    add_config(command, line);
    command->add_flag("--trace", line.trace, "show what the daemon would log");
    command->footer(
        "The exit status is 0 if the job succeeded and 1 if it failed.\n"
        "Examples:\n"
        "  pexctl run ./greet.lua '{\"name\": \"dock 7\"}'\n"
        "  pexctl run --config /etc/pex-command/pex-command.properties greet @args.json");
}

void add_submit(CLI::App& app, CommandLine& line)
{
    CLI::App* command =
        app.add_subcommand("submit", "Sends a job, waits, prints the answer, withdraws the job.");
    add_script_and_args(command, line, "the script's name, without .lua");
    add_view(command, line);
    command->add_option("--id", line.job.id, "the job's id; a random one without this")
        ->check(check_job_id)
        ->check([](const std::string& id) { return id.empty() ? "the id is empty" : ""; })
        ->type_name("ID");
    add_timeout(command, line);
    command->add_flag("--keep", line.job.keep, "do not withdraw the job");
    command->add_flag("--detach", line.request.detach, "print the job's id and do not wait");
    command->add_flag("-r,--retain", line.request.retain,
                      "have the broker keep the request until it is withdrawn");
    command->add_option("-q,--qos", line.request.qos, "the request's quality of service (1)")
        ->check(CLI::Range(1, 2).description(""))
        ->type_name("1|2");
    add_broker(command, line);
    command->footer(
        "Examples:\n"
        "  pexctl submit greet '{\"name\": \"dock 7\"}'\n"
        "  pexctl submit -h dock7 --detach --retain --id backup-1 backup");
}

void add_attach(CLI::App& app, CommandLine& line)
{
    CLI::App* command =
        app.add_subcommand("attach", "The same for a job sent before: waits, prints, withdraws.");
    add_job_id(command, line);
    add_view(command, line);
    add_timeout(command, line);
    command->add_flag("--keep", line.job.keep, "do not withdraw the job");
    add_broker(command, line);
    command->footer(
        "Examples:\n"
        "  pexctl attach backup-1\n"
        "  pexctl attach -h dock7 --keep --as hex backup-1");
}

void add_withdraw(CLI::App& app, CommandLine& line)
{
    CLI::App* command =
        app.add_subcommand("withdraw", "Withdraws a job: the broker then keeps nothing of it.");
    add_job_id(command, line);
    add_timeout(command, line);
    add_broker(command, line);
    command->footer(
        "Examples:\n"
        "  pexctl withdraw backup-1\n"
        "  pexctl withdraw -h dock7 -W 5 backup-1");
}

void add_list(CLI::App& app, CommandLine& line)
{
    CLI::App* command =
        app.add_subcommand("list", "Lists the results and retained requests at the broker.");
    add_timeout(command, line);
    add_broker(command, line);
    command->footer(
        "Examples:\n"
        "  pexctl list\n"
        "  pexctl list -h /run/pex-command/broker.sock");
}

void add_check(CLI::App& app, CommandLine& line)
{
    CLI::App* command =
        app.add_subcommand("check", "Looks a dock's set-up over before it goes out.");
    command->add_option("CONFIG", line.config_file, "the daemon's configuration")
        ->required()
        ->type_name("CONFIG");
    command->add_flag("--config-only", line.config_only,
                      "leave out the scripts; missing directories are warnings");
    command->footer(
        "It reads the configuration, the log's keys, the directories and all scripts, and\n"
        "prints one line a finding, the worst first. The exit status is 1 if something\n"
        "would fail. It sees what you may see, so run it as the daemon's user.\n"
        "Examples:\n"
        "  pexctl check pex-command.properties\n"
        "  sudo -u pex-command pexctl check /etc/pex-command/pex-command.properties");
}

/// For the completion of script names in a shell.
void add_scripts(CLI::App& app, CommandLine& line)
{
    CLI::App* command = app.add_subcommand("scripts", "Lists the names of scripts.")->group("");
    command->add_option("--search-dir", line.search_dirs)->allow_extra_args(false);
    add_config(command, line);
}

/// The connection's options as they were typed, for commands shown to users; without the password.
std::string connection_as_typed(const CLI::App* command)
{
    std::string text;
    for (const CLI::Option* option : command->get_options()) {
        const std::string name = option->get_name();
        if (option->get_group() != broker_group || option->count() == 0) {
            continue;
        }
        const std::string flag = option->get_snames().empty() ? "--" + option->get_lnames().front()
                                                              : "-" + option->get_snames().front();
        const std::string value = flag == "-P" ? "..." : option->results().front();
        text += " " + flag + (option->get_items_expected_max() == 0 ? "" : " " + shell_word(value));
    }
    return text;
}

}  // namespace

CommandLine parse_command_line(int argc, char* argv[])
{
    CommandLine line;
    CLI::App app("Runs job scripts here, and sends jobs to docks.", "pexctl");
    app.set_help_flag("--help", "Explains a command.");
    app.set_version_flag("--version", std::string("pexctl " PEX_COMMAND_VERSION));
    app.formatter(std::make_shared<ScreenFormatter>());
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0 the job succeeded, 1 it failed, 2 wrong usage, 3 the broker was\n"
        "not reached or refused, 4 timed out, 130 interrupted. More in pexctl(1).\n"
        "Examples:\n"
        "  pexctl run ./greet.lua '{\"name\": \"dock 7\"}'\n"
        "  pexctl submit -h dock7 greet '{\"name\": \"dock 7\"}'");
    add_run(app, line);
    add_submit(app, line);
    add_attach(app, line);
    add_withdraw(app, line);
    add_list(app, line);
    add_check(app, line);
    add_scripts(app, line);
    try {
        app.parse(argc, argv);
        const Connection& given = line.connection;
        if (!given.uses_tls() && (given.insecure || !given.cert_file.empty())) {
            throw CLI::RequiredError("--cafile or --capath");
        }
    } catch (const CLI::Success& done) {  // --help, --version
        std::exit(app.exit(done));
    } catch (const CLI::ParseError& error) {
        const auto commands = app.get_subcommands();
        const bool no_command = commands.empty() && argc > 1 && argv[1][0] != '-';
        std::cerr << "pexctl: "
                  << (no_command ? "There is no command " + std::string(argv[1]) : error.what())
                  << "\nSee `pexctl "
                  << (commands.empty() ? "" : commands.front()->get_name() + " ") << "--help`.\n";
        std::exit(wrong_usage);
    }
    const CLI::App* command = app.get_subcommands().front();
    line.command = command->get_name();
    line.job.as_typed = connection_as_typed(command);
    return line;
}

}  // namespace pexctl
