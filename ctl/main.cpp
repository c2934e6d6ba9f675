// SPDX-License-Identifier: Apache-2.0
//
// oxelctl: the administrator's tool. Reads the command line and hands over to the verb.
#include <strings.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/store.h"
#include "ctl/verbs.h"

namespace {

using oxel::ctl::ExitCode;
using oxel::ctl::Settings;

// Shows the instance option as it is typed: with one dash, like the daemon's.
class HelpText : public CLI::Formatter {
  public:
    std::string make_option_name(const CLI::Option* option, bool positional) const override {
        const std::string name = CLI::Formatter::make_option_name(option, positional);
        return name == "--vm" ? "-vm" : name;
    }
};

std::string CheckInstance(const std::string& name) {
    if (oxel::IsValidInstanceName(name)) return "";
    return "an instance name has 1 to 64 bytes, no '/' and no control characters";
}

int Usage(const std::string& what) {
    (void)fprintf(stderr, "oxelctl: %s\nRun \"oxelctl --help\" for more information.\n",
                  what.c_str());
    return oxel::ctl::kUsage;
}

}  // namespace

// What throws where nothing is caught is memory that is short.
int main(int argc, char** argv) {  // NOLINT(bugprone-exception-escape)
    Settings settings;
    // The parser knows words behind two dashes only, so "-vm NAME" is taken out before it looks.
    const int given = argc;
    const VMArgsAdjust adjusted(argc, argv, true);
    if (argc != given) settings.instance = VMArgsAdjust::getName();
    if (argc > 1 && strcasecmp(argv[argc - 1], "-vm") == 0)
        return Usage("an instance name must follow " + std::string(argv[argc - 1]));
    if (const std::string fault = CheckInstance(settings.instance); !fault.empty())
        return Usage(fault);

    ExitCode result = oxel::ctl::kDone;
    CLI::App app("Looks at a running oxelnfsd and tells it what to do.", "oxelctl");
    const auto help = std::make_shared<HelpText>();
    help->label("SUBCOMMAND", "VERB");
    app.formatter(help);
    app.require_subcommand(1);
    app.add_option("--vm", settings.instance, "The daemon's instance name")
        ->type_name("INSTANCE")
        ->default_str("Instance001")
        ->check(CheckInstance);
    app.add_flag("--json", settings.json, "Answer in JSON, for programs");
    app.footer("Exit code: 0 done, 1 the daemon said no, 2 usage, 3 no daemon answers.");

    const auto verb = [&](const char* name, const char* purpose, ExitCode (*run)(const Settings&)) {
        CLI::App* command = app.add_subcommand(name, purpose);
        command->group("Verbs");
        command->fallthrough();  // -vm and --json may stand behind the verb
        command->callback([&result, &settings, run] { result = run(settings); });
        return command;
    };
    verb("status", "Shows what the daemon is doing", oxel::ctl::Status);
    verb("check", "Shows every error in the files, and what a reload would change; needs no daemon",
         oxel::ctl::Check);
    verb("exports", "Shows the shares", oxel::ctl::Exports);
    verb("mounts", "Shows the clients that mounted a share", oxel::ctl::Mounts);
    verb("clients", "Shows the connected clients and what they do", oxel::ctl::Clients);
    verb("reload", "Has the daemon read the shares anew", oxel::ctl::Reload);
    CLI::App* stats =
        verb("stats", "Shows how many calls there were and how long they took", oxel::ctl::Stats);
    stats->add_flag("--watch", settings.watch, "Every second, what has come in that second");
    stats->add_option("--by", settings.by, "By procedure, share or client")
        ->check(CLI::IsMember({"procedure", "share", "client"}))
        ->capture_default_str();
    verb("perf", "Writes the performance counters to the daemon's log", oxel::ctl::Perf);
    verb("log-level", "Shows or sets the level of the daemon's log", oxel::ctl::LogLevel)
        ->add_option("N", settings.level, "0 (errors and warnings) to 4 (everything)")
        ->check(CLI::Range(0, 4));
    CLI::App* why = verb("why", "Explains what a client gets that mounts a path", oxel::ctl::Why);
    why->add_option("ADDRESS", settings.why.address, "The client's IPv4 or IPv6 address")
        ->required();
    why->add_option("PATH", settings.why.path, "The path that it mounts")->required();
    why->add_option("--port", settings.why.port, "The client's port")->type_name("N");
    why->add_option("--uid", settings.why.uid, "The user id that the client sends")->type_name("N");
    why->add_option("--file", settings.why.file,
                    "An exports file to read instead of asking the daemon for its shares")
        ->type_name("FILE");
    verb("start-network", "Has the daemon start its network services now", oxel::ctl::StartNetwork)
        ->add_flag("--register", settings.registerPortMapper,
                   "Also register them with the port mapper");
    verb("stop", "Ends the daemon", oxel::ctl::Stop);

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success);  // --help
    } catch (const CLI::RequiredError&) {
        const std::vector<std::string> unknown = app.remaining();
        return Usage(unknown.empty() ? "what is to be done?"
                                     : "no such verb: " + oxel::EscapeControl(unknown.front()));
    } catch (const CLI::ParseError& error) {
        return Usage(oxel::EscapeControl(error.what()));
    } catch (const std::exception& exception) {
        (void)fprintf(stderr, "oxelctl: %s\n", exception.what());
        return oxel::ctl::kNoDaemon;
    }
    return result;
}
