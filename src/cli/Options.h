// The commands and options of dubmatch-cli, in one table: the parser, the
// shell completions and the checks of the manual all read it.
#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace commandline {

// What a value completes to in a shell.
enum class Completes { Nothing, File, Movie, Words };

struct Option {
    std::string name;       // "--output"
    std::string shortName;  // "-o" or empty
    std::string value;      // the placeholder of its value ("OUT"); empty for a flag
    Completes completes = Completes::Nothing;
    std::vector<std::string> words; // for Completes::Words
    bool repeatable = false;
};

struct Command {
    std::string name;
    std::vector<std::string> positionals; // placeholders, in order ("MOVIE"); "[NAME]" may be left out
    Completes positionalCompletes = Completes::Movie;
    std::vector<Option> options;
};

// Every command; options shared by all commands (--json where it applies)
// are listed with each.
std::vector<Command> const& commands();
Command const* findCommand(std::string const& name);

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A command line after its command: positionals in order, and each option's
// values (a flag has one empty value per use).
struct Parsed {
    std::vector<std::string> positionals;
    std::map<std::string, std::vector<std::string>> values; // by long name

    bool has(std::string const& name) const { return values.count(name) > 0; }
    std::string value(std::string const& name, std::string const& fallback = {}) const;
    std::vector<std::string> all(std::string const& name) const;
};

// Parses the arguments of `command` against the table. Accepts
// "--name=value" for options with a value. Throws UsageError.
Parsed parse(Command const& command, std::vector<std::string> const& args);

// A completion script for "bash" or "zsh".
std::string completionScript(std::string const& shell);

} // namespace commandline
