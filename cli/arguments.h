/// \file
/// Command-line parsing for the subcommands of `hermite`: long options ("--name value" or
/// "--name=value"), flags, options that take one or more values, positional arguments, and the
/// help text generated from the same descriptions, so that every option is documented.
///
/// Every mistake on the command line is a `UsageError` (exit status 2); its message is printed
/// as "hermite <command>: <message>".
#pragma once

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace hermite::cli {

/// A mistake on the command line: unknown option, missing or malformed value, missing required
/// option or argument.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The parsed command line of one subcommand.
class CommandLine {
public:
    /// True when `--help` or `-h` was given (nothing else is checked then).
    bool HelpRequested() const { return helpRequested_; }
    /// True when the option (e.g. "--quiet") was given.
    bool Has(const std::string& name) const { return values_.count(name) > 0; }
    /// The value of a single-value option; `fallback` when it was not given.
    std::string Value(const std::string& name, const std::string& fallback = "") const;
    /// The values of an option that takes several (empty when not given).
    std::vector<std::string> Values(const std::string& name) const;
    /// The positional arguments in command-line order.
    const std::vector<std::string>& Positionals() const { return positionals_; }

private:
    friend class ArgumentParser;
    bool helpRequested_ = false;
    std::map<std::string, std::vector<std::string>> values_;
    std::vector<std::string> positionals_;
};

/// The description of a subcommand's arguments, which parses them and prints its help.
class ArgumentParser {
public:
    /// `command` is the subcommand's name ("overlay"), `synopsis` the usage line without the
    /// leading "hermite <command>", `description` one or more paragraphs (separated by blank
    /// lines) printed under the usage line.
    ArgumentParser(std::string command, std::string synopsis, std::string description);

    /// An option without a value, e.g. "--quiet".
    ArgumentParser& Flag(const std::string& name, const std::string& help);
    /// An option with one value shown as `metavar` in the help, e.g. ("--order", "N", ...).
    /// A required option must be given; an optional one may be given at most once.
    ArgumentParser& Option(const std::string& name, const std::string& metavar,
                           const std::string& help, bool required = false);
    /// An option followed by one or more values ("--db A.sdf B.sdf"): values are taken up to the
    /// next argument that starts with "--". It may also be repeated.
    ArgumentParser& List(const std::string& name, const std::string& metavar,
                         const std::string& help, bool required = false);
    /// A required positional argument (in the order declared).
    ArgumentParser& Positional(const std::string& metavar, const std::string& help);
    /// A last positional argument that takes one or more values.
    ArgumentParser& RepeatedPositional(const std::string& metavar, const std::string& help);

    /// Parses the arguments after the subcommand's name. Throws `UsageError`.
    CommandLine Parse(const std::vector<std::string>& arguments) const;

    /// The help text: usage line, description and every option with its explanation.
    std::string Help() const;

    /// The subcommand's name.
    const std::string& Command() const { return command_; }

private:
    enum class Kind { Flag, Single, List };

    struct OptionDescription {
        std::string name;
        std::string metavar;
        std::string help;
        Kind kind = Kind::Flag;
        bool required = false;
    };

    struct PositionalDescription {
        std::string metavar;
        std::string help;
    };

    const OptionDescription* Find(const std::string& name) const;
    /// The error for an unknown option or missing argument, with the pointer to the help.
    UsageError WithHelpHint(const std::string& message) const;
    /// Checks the required options and positional arguments of a parsed command line.
    void CheckComplete(const CommandLine& line) const;

    std::string command_;
    std::string synopsis_;
    std::string description_;
    std::vector<OptionDescription> options_;
    std::vector<PositionalDescription> positionals_;
    bool lastPositionalRepeats_ = false;
};

// =============================================================================================
// Values

/// The integer value of option `name` (`text` as given), which must lie in [min, max]; else
/// UsageError "--order must be an integer from 0 to 100, got 101".
long long ParseInteger(const std::string& name, const std::string& text, long long min,
                       long long max);

/// The value of option `name` as a finite real number in [min, max]; else UsageError
/// "--spacing must be a number from 0.01 to 100, got abc".
double ParseReal(const std::string& name, const std::string& text, double min, double max);

/// The value of an integer option with a default when it was not given.
long long IntegerOption(const CommandLine& line, const std::string& name, long long fallback,
                        long long min, long long max);

/// The value of a real option with a default when it was not given.
double RealOption(const CommandLine& line, const std::string& name, double fallback, double min,
                  double max);

/// Wraps `text` into lines of at most `width` characters, each line after the first indented
/// by `indent` spaces. Words longer than a line stay whole.
std::string WrapText(const std::string& text, std::size_t width, std::size_t indent);

}  // namespace hermite::cli
