// The `hermite` command: dispatches to the subcommands, prints help and version, and turns
// errors into messages and exit statuses.

#include <iostream>
#include <string>
#include <vector>

#include "cli/cluster_commands.h"
#include "cli/commands.h"
#include "cli/exit_status.h"

#ifndef HERMITE_VERSION
#define HERMITE_VERSION "unknown"
#endif

namespace hermite::cli {

const std::vector<Command>& Commands() {
    static const std::vector<Command> commands = {
        {"overlay", "Overlay database molecules onto a query by shape and rank them.",
         &OverlayParser, &RunOverlay},
        {"prepare", "Turn molecule files into a prepared library for fast screening.",
         &PrepareParser, &RunPrepare},
        {"grid", "Render a molecule's Hermite density onto a CCP4/MRC or cube map.", &GridParser,
         &RunGrid},
        {"expand", "Print a molecule's Hermite expansion (lambdas, coefficients) as JSON.",
         &ExpandParser, &RunExpand},
    };
    return commands;
}

namespace {

/// The command of that name, or null.
const Command* FindCommand(const std::string& name) {
    for (const Command& command : Commands()) {
        if (name == command.name) {
            return &command;
        }
    }
    return nullptr;
}

/// The help of `hermite` itself.
std::string MainHelp() {
    std::string text =
        "Usage: hermite <command> [options]\n"
        "       hermite help <command> | --help | --version\n"
        "\n"
        "Molecular shape comparison with 3-D Hermite expansions of Gaussian densities.\n"
        "\n"
        "Commands:\n";
    for (const Command& command : Commands()) {
        const std::string name = command.name;
        text += "  " + name + std::string(10 - name.size(), ' ') + command.summary + "\n";
    }
    text +=
        "\n"
        "Run 'hermite <command> --help' (or 'hermite help <command>') for the options of a "
        "command.\n"
        "\n"
        "Options:\n"
        "  -h, --help    Show this help and exit.\n"
        "  --version     Show the version and exit.\n";
    return text;
}

/// Runs one subcommand, reporting its errors.
int RunCommand(const Command& command, const std::vector<std::string>& arguments) {
    return RunReportingErrors(std::string("hermite ") + command.name + ": ", [&] {
        const ArgumentParser parser = command.parser();
        const CommandLine line = parser.Parse(arguments);
        if (line.HelpRequested()) {
            std::cout << parser.Help();
            return static_cast<int>(kExitOk);
        }
        return command.run(line);
    });
}

/// `hermite help [command]`.
int RunHelp(const std::vector<std::string>& arguments) {
    if (arguments.empty()) {
        std::cout << MainHelp();
        return kExitOk;
    }
    const Command* command = FindCommand(arguments.front());
    if (command == nullptr || arguments.size() > 1) {
        std::cerr << "hermite help: unknown command '" << arguments.front()
                  << "' (see hermite --help)\n";
        return kExitUsage;
    }
    std::cout << command->parser().Help();
    return kExitOk;
}

int Main(const std::vector<std::string>& arguments) {
    if (arguments.empty()) {
        std::cerr << MainHelp();
        return kExitUsage;
    }
    const std::string& first = arguments.front();
    const std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
    if (first == "--help" || first == "-h") {
        std::cout << MainHelp();
        return kExitOk;
    }
    if (first == "--version") {
        std::cout << "hermite " << HERMITE_VERSION << "\n";
        return kExitOk;
    }
    if (first == "help") {
        return RunHelp(rest);
    }
    // Not in the help: the commands through which the Python module's distributed screening
    // drives the tool.
    if (first == kCoordinatorCommand) {
        return RunReportingErrors(first + ": ", [&] { return RunOverlayCoordinator(rest); });
    }
    if (first == kWorkerCommand) {
        return RunOverlayWorker(rest);
    }
    const Command* command = FindCommand(first);
    if (command == nullptr) {
        std::cerr << "hermite: unknown "
                  << (first.size() > 1 && first[0] == '-' ? "option " : "command ") << first
                  << " (see hermite --help)\n";
        return kExitUsage;
    }
    return RunCommand(*command, rest);
}

}  // namespace
}  // namespace hermite::cli

int main(int argc, char** argv) {
    return hermite::cli::Main(std::vector<std::string>(argv + 1, argv + argc));
}
