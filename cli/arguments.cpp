// Command-line parsing and help text of the subcommands.

#include "cli/arguments.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <sstream>

namespace hermite::cli {

namespace {

/// Width of the help text.
constexpr std::size_t kHelpWidth = 100;
/// Column at which the explanations of options start.
constexpr std::size_t kHelpColumn = 26;

/// True for an argument that names an option ("--x", "-h"), not a value. A lone "-" and
/// negative numbers ("-1") are values.
bool LooksLikeOption(const std::string& argument) {
    if (argument.size() < 2 || argument[0] != '-') {
        return false;
    }
    const char second = argument[1];
    return !(second == '.' || (second >= '0' && second <= '9'));
}

/// The number as written by the user, for messages.
std::string Shown(const std::string& text) {
    return text.empty() ? "nothing" : text;
}

/// A number for messages: integers without a decimal point, others shortest.
std::string FormatLimit(double value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

}  // namespace

// =============================================================================================
// CommandLine

std::string CommandLine::Value(const std::string& name, const std::string& fallback) const {
    const auto found = values_.find(name);
    if (found == values_.end() || found->second.empty()) {
        return fallback;
    }
    return found->second.back();
}

std::vector<std::string> CommandLine::Values(const std::string& name) const {
    const auto found = values_.find(name);
    return found == values_.end() ? std::vector<std::string>() : found->second;
}

// =============================================================================================
// ArgumentParser

ArgumentParser::ArgumentParser(std::string command, std::string synopsis, std::string description)
    : command_(std::move(command)),
      synopsis_(std::move(synopsis)),
      description_(std::move(description)) {}

ArgumentParser& ArgumentParser::Flag(const std::string& name, const std::string& help) {
    options_.push_back({name, "", help, Kind::Flag, false});
    return *this;
}

ArgumentParser& ArgumentParser::Option(const std::string& name, const std::string& metavar,
                                       const std::string& help, bool required) {
    options_.push_back({name, metavar, help, Kind::Single, required});
    return *this;
}

ArgumentParser& ArgumentParser::List(const std::string& name, const std::string& metavar,
                                     const std::string& help, bool required) {
    options_.push_back({name, metavar, help, Kind::List, required});
    return *this;
}

ArgumentParser& ArgumentParser::Positional(const std::string& metavar, const std::string& help) {
    positionals_.push_back({metavar, help});
    return *this;
}

ArgumentParser& ArgumentParser::RepeatedPositional(const std::string& metavar,
                                                   const std::string& help) {
    Positional(metavar, help);
    lastPositionalRepeats_ = true;
    return *this;
}

const ArgumentParser::OptionDescription* ArgumentParser::Find(const std::string& name) const {
    for (const OptionDescription& option : options_) {
        if (option.name == name) {
            return &option;
        }
    }
    return nullptr;
}

UsageError ArgumentParser::WithHelpHint(const std::string& message) const {
    return UsageError(message + " (see hermite " + command_ + " --help)");
}

CommandLine ArgumentParser::Parse(const std::vector<std::string>& arguments) const {
    CommandLine line;
    // Help wins over everything else, wherever it stands.
    for (const std::string& argument : arguments) {
        if (argument == "--") {
            break;
        }
        if (argument == "--help" || argument == "-h") {
            line.helpRequested_ = true;
            return line;
        }
    }

    bool optionsEnded = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (optionsEnded || !LooksLikeOption(argument)) {
            line.positionals_.push_back(argument);
            continue;
        }
        if (argument == "--") {
            optionsEnded = true;
            continue;
        }
        // "--name=value" or "--name".
        const std::size_t equals = argument.find('=');
        const std::string name = argument.substr(0, equals);
        const OptionDescription* option = Find(name);
        if (option == nullptr) {
            throw WithHelpHint("unknown option " + name);
        }
        std::vector<std::string>& values = line.values_[name];
        if (option->kind == Kind::Flag) {
            if (equals != std::string::npos) {
                throw UsageError(name + " takes no value");
            }
            values.push_back("");
            continue;
        }
        if (option->kind == Kind::Single && !values.empty()) {
            throw UsageError(name + " given more than once");
        }
        if (equals != std::string::npos) {
            values.push_back(argument.substr(equals + 1));
        } else if (i + 1 < arguments.size() &&
                   (option->kind == Kind::Single || !LooksLikeOption(arguments[i + 1]))) {
            // A single value is taken whatever it looks like ("--threads -1").
            values.push_back(arguments[++i]);
        } else {
            throw UsageError(name + " needs a value (" + option->metavar + ")");
        }
        if (option->kind == Kind::List) {
            while (i + 1 < arguments.size() && !LooksLikeOption(arguments[i + 1])) {
                values.push_back(arguments[++i]);
            }
        }
    }
    CheckComplete(line);
    return line;
}

void ArgumentParser::CheckComplete(const CommandLine& line) const {
    for (const OptionDescription& option : options_) {
        if (option.required && !line.Has(option.name)) {
            throw WithHelpHint("missing required option " + option.name);
        }
    }
    if (line.positionals_.size() < positionals_.size()) {
        throw WithHelpHint("missing argument " + positionals_[line.positionals_.size()].metavar);
    }
    if (line.positionals_.size() > positionals_.size() && !lastPositionalRepeats_) {
        throw WithHelpHint("unexpected argument '" + line.positionals_[positionals_.size()] + "'");
    }
}

std::string ArgumentParser::Help() const {
    std::ostringstream out;
    out << "Usage: hermite " << command_ << " " << synopsis_ << "\n";

    // Paragraphs of the description, each wrapped.
    std::istringstream paragraphs(description_);
    std::string paragraph;
    std::string text;
    auto flush = [&]() {
        if (!paragraph.empty()) {
            out << "\n" << WrapText(paragraph, kHelpWidth, 0) << "\n";
            paragraph.clear();
        }
    };
    while (std::getline(paragraphs, text)) {
        if (text.empty()) {
            flush();
        } else {
            paragraph += (paragraph.empty() ? "" : " ") + text;
        }
    }
    flush();

    auto entry = [&](const std::string& left, const std::string& help) {
        std::string head = "  " + left;
        if (head.size() + 2 > kHelpColumn) {
            out << head << "\n" << std::string(kHelpColumn, ' ');
        } else {
            out << head << std::string(kHelpColumn - head.size(), ' ');
        }
        out << WrapText(help, kHelpWidth - kHelpColumn, kHelpColumn) << "\n";
    };
    if (!positionals_.empty()) {
        out << "\nArguments:\n";
        for (const PositionalDescription& positional : positionals_) {
            entry(positional.metavar, positional.help);
        }
    }
    out << "\nOptions:\n";
    for (const OptionDescription& option : options_) {
        std::string left = option.name;
        if (option.kind == Kind::Single) {
            left += " " + option.metavar;
        } else if (option.kind == Kind::List) {
            left += " " + option.metavar + " [" + option.metavar + "...]";
        }
        entry(left, option.help + (option.required ? " Required." : ""));
    }
    entry("-h, --help", "Show this help and exit.");
    return out.str();
}

// =============================================================================================
// Values

long long ParseInteger(const std::string& name, const std::string& text, long long min,
                       long long max) {
    const std::string message = name + " must be an integer from " + std::to_string(min) + " to " +
                                std::to_string(max) + ", got " + Shown(text);
    if (text.empty()) {
        throw UsageError(message);
    }
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0' || value < min || value > max) {
        throw UsageError(message);
    }
    return value;
}

double ParseReal(const std::string& name, const std::string& text, double min, double max) {
    const std::string message = name + " must be a number from " + FormatLimit(min) + " to " +
                                FormatLimit(max) + ", got " + Shown(text);
    if (text.empty()) {
        throw UsageError(message);
    }
    errno = 0;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (errno != 0 || end == text.c_str() || *end != '\0' || !std::isfinite(value) || value < min ||
        value > max) {
        throw UsageError(message);
    }
    return value;
}

long long IntegerOption(const CommandLine& line, const std::string& name, long long fallback,
                        long long min, long long max) {
    return line.Has(name) ? ParseInteger(name, line.Value(name), min, max) : fallback;
}

double RealOption(const CommandLine& line, const std::string& name, double fallback, double min,
                  double max) {
    return line.Has(name) ? ParseReal(name, line.Value(name), min, max) : fallback;
}

std::string WrapText(const std::string& text, std::size_t width, std::size_t indent) {
    std::istringstream words(text);
    std::string word;
    std::string result;
    std::size_t column = 0;
    while (words >> word) {
        if (column > 0 && column + 1 + word.size() > width) {
            result += "\n" + std::string(indent, ' ');
            column = 0;
        } else if (column > 0) {
            result += ' ';
            ++column;
        }
        result += word;
        column += word.size();
    }
    return result;
}

}  // namespace hermite::cli
