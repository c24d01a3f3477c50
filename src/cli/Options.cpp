#include "Options.h"

#include <sstream>

namespace commandline {

namespace {

Option flag(std::string name) { return Option{std::move(name), "", "", Completes::Nothing, {}, false}; }
Option valued(std::string name, std::string value, Completes c = Completes::Nothing, std::vector<std::string> words = {})
{
    return Option{std::move(name), "", std::move(value), c, std::move(words), false};
}

std::string const kMovieGlob = "mov|mp4|m4v|m4a|mkv|mka|webm|ts|m2ts|mts|avi|dv|mpg|mpeg|vob|flv|3gp|mxf|wmv|ogv|wav|aif|aiff";

} // namespace

std::vector<Command> const& commands()
{
    static std::vector<Command> const table = [] {
        Option json = flag("--json");
        Option point = valued("--point", "M=A");
        point.repeatable = true;
        Option output = valued("--output", "OUT", Completes::File);
        output.shortName = "-o";
        std::vector<Command> t;
        Option track = valued("--track", "N");
        Option reference = valued("--reference", "TRACK|FILE", Completes::Movie);
        t.push_back({"info", {"MOVIE"}, Completes::Movie, {track, json}});
        t.push_back({"sync",
                     {"MOVIE"},
                     Completes::Movie,
                     {point, valued("--points", "FILE", Completes::File), flag("--from-movie"), output, flag("--in-place"),
                      valued("--type", "TYPE", Completes::Words, {"mov", "web", "mp4", "aiff", "dv", "flc", "bmp"}),
                      valued("--sound-codec", "CODEC", Completes::Words, {"same", "pcm", "flac", "alac", "aac"}),
                      valued("--lossless-shift", "WHEN", Completes::Words, {"auto", "always", "never"}),
                      flag("--drop-unsupported"), flag("--force"), flag("--accept-truncated"), flag("--dry-run"), flag("--quiet"),
                      flag("--auto"), valued("--min-confidence", "X"), track, reference, json}});
        t.push_back({"suggest", {"MOVIE"}, Completes::Movie, {track, reference, flag("--quiet"), json}});
        t.push_back({"demo",
                     {"OUT"},
                     Completes::File,
                     {valued("--seconds", "S"), valued("--size", "WxH"), valued("--fps", "N"), valued("--offset", "S"),
                      valued("--rate", "R"), valued("--points-file", "FILE", Completes::File)}});
        Option measurePoint = point;
        t.push_back({"measure", {"MOVIE", "[SYNCED]"}, Completes::Movie, {measurePoint, valued("--points", "FILE", Completes::File), track, reference, json}});
        return t;
    }();
    return table;
}

Command const* findCommand(std::string const& name)
{
    for (auto const& c : commands())
        if (c.name == name) return &c;
    return nullptr;
}

std::string Parsed::value(std::string const& name, std::string const& fallback) const
{
    auto it = values.find(name);
    return it == values.end() || it->second.empty() ? fallback : it->second.back();
}

std::vector<std::string> Parsed::all(std::string const& name) const
{
    auto it = values.find(name);
    return it == values.end() ? std::vector<std::string>{} : it->second;
}

Parsed parse(Command const& command, std::vector<std::string> const& args)
{
    Parsed p;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string a = args[i];
        bool looksLikeOption = a.size() > 1 && a[0] == '-';
        if (!looksLikeOption) {
            p.positionals.push_back(a);
            continue;
        }
        std::string inlineValue;
        bool hasInline = false;
        if (auto eq = a.find('='); a.rfind("--", 0) == 0 && eq != std::string::npos) {
            inlineValue = a.substr(eq + 1);
            a = a.substr(0, eq);
            hasInline = true;
        }
        Option const* option = nullptr;
        for (auto const& o : command.options)
            if (o.name == a || (!o.shortName.empty() && o.shortName == a)) option = &o;
        if (!option) throw UsageError("unknown option " + a + " for " + command.name);
        if (option->value.empty()) {
            if (hasInline) throw UsageError(option->name + " takes no value");
            p.values[option->name].emplace_back();
            continue;
        }
        std::string v;
        if (hasInline) v = inlineValue;
        else if (i + 1 < args.size()) v = args[++i];
        else throw UsageError("missing " + option->value + " after " + a);
        if (!option->repeatable && p.values.count(option->name)) throw UsageError(option->name + " given twice");
        p.values[option->name].push_back(v);
    }
    // A placeholder in brackets ("[SYNCED]") may be left out.
    std::size_t required = 0;
    for (auto const& name : command.positionals) required += name.rfind('[', 0) == 0 ? 0 : 1;
    if (p.positionals.size() < required)
        throw UsageError("missing " + command.positionals[p.positionals.size()] + " for " + command.name);
    if (p.positionals.size() > command.positionals.size()) throw UsageError("unexpected argument " + p.positionals[command.positionals.size()]);
    return p;
}

namespace {

std::string join(std::vector<std::string> const& words, char const* sep = " ")
{
    std::string s;
    for (auto const& w : words) s += (s.empty() ? "" : sep) + w;
    return s;
}

std::string bashScript()
{
    std::ostringstream o;
    o << "# bash completion for dubmatch-cli (generated by dubmatch-cli --completion bash)\n"
         "_dubmatch_cli()\n{\n"
         "    local cur prev cmd i\n"
         "    cur=${COMP_WORDS[COMP_CWORD]}\n"
         "    prev=${COMP_WORDS[COMP_CWORD-1]}\n"
         "    cmd=\n"
         "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
         "        case ${COMP_WORDS[i]} in -*) ;; *) cmd=${COMP_WORDS[i]}; break ;; esac\n"
         "    done\n"
         "    if [[ -z $cmd ]]; then\n"
         "        COMPREPLY=($(compgen -W '";
    std::vector<std::string> names;
    for (auto const& c : commands()) names.push_back(c.name);
    o << join(names) << " --help --version' -- \"$cur\"))\n"
         "        return\n"
         "    fi\n"
         "    case $cmd in\n";
    for (auto const& c : commands()) {
        o << "    " << c.name << ")\n        case $prev in\n";
        std::vector<std::string> all;
        for (auto const& opt : c.options) {
            all.push_back(opt.name);
            if (!opt.shortName.empty()) all.push_back(opt.shortName);
            if (opt.value.empty()) continue;
            o << "        " << opt.name << (opt.shortName.empty() ? "" : "|" + opt.shortName) << ")\n";
            switch (opt.completes) {
            case Completes::File:
            case Completes::Movie: o << "            COMPREPLY=($(compgen -f -- \"$cur\")); compopt -o filenames 2>/dev/null\n"; break;
            case Completes::Words: o << "            COMPREPLY=($(compgen -W '" << join(opt.words) << "' -- \"$cur\"))\n"; break;
            case Completes::Nothing: o << "            COMPREPLY=()\n"; break;
            }
            o << "            return ;;\n";
        }
        o << "        esac\n"
             "        if [[ $cur == -* ]]; then\n"
             "            COMPREPLY=($(compgen -W '"
          << join(all) << "' -- \"$cur\"))\n        else\n";
        if (c.positionalCompletes == Completes::Movie)
            o << "            COMPREPLY=($(compgen -f -X '!*.@(" << kMovieGlob << "|" << "MOV|MP4|MKV|TS|AVI)' -- \"$cur\") $(compgen -d -- \"$cur\"))\n";
        else o << "            COMPREPLY=($(compgen -f -- \"$cur\"))\n";
        o << "            compopt -o filenames 2>/dev/null\n        fi\n        ;;\n";
    }
    o << "    esac\n}\ncomplete -F _dubmatch_cli dubmatch-cli\n";
    return o.str();
}

std::string zshQuote(std::string const& s)
{
    std::string out;
    for (char ch : s) {
        if (ch == '\'') out += "'\\''";
        else if (ch == '[' || ch == ']' || ch == ':') out += std::string("\\") + ch;
        else out += ch;
    }
    return out;
}

std::string zshAction(Option const& opt)
{
    switch (opt.completes) {
    case Completes::File: return "_files";
    case Completes::Movie: return "_files";
    case Completes::Words: {
        std::string words = "(";
        words += join(opt.words);
        words += ')';
        return words;
    }
    case Completes::Nothing: return " ";
    }
    return " ";
}

std::string zshScript()
{
    std::ostringstream o;
    o << "#compdef dubmatch-cli\n"
         "# zsh completion for dubmatch-cli (generated by dubmatch-cli --completion zsh)\n\n"
         "_dubmatch_cli() {\n"
         "  local curcontext=$curcontext state line\n"
         "  typeset -A opt_args\n"
         "  _arguments -C '(- *)--help[show the help]' '(- *)--version[show the version]' '1:command:->command' '*::argument:->argument'\n"
         "  case $state in\n"
         "  command)\n"
         "    local -a cmds\n"
         "    cmds=(";
    for (auto const& c : commands()) o << c.name << " ";
    o << ")\n    _describe command cmds ;;\n"
         "  argument)\n"
         "    case $line[1] in\n";
    std::string movieGlob = kMovieGlob;
    for (auto& ch : movieGlob)
        if (ch == '|') ch = ',';
    for (auto const& c : commands()) {
        o << "    " << c.name << ")\n      _arguments";
        for (auto const& opt : c.options) {
            std::string names = opt.shortName.empty() ? opt.name : "{" + opt.shortName + "," + opt.name + "}";
            std::string repeat = opt.repeatable ? "*" : "";
            if (!opt.shortName.empty()) {
                o << " \\\n        " << repeat << "'(" << opt.shortName << " " << opt.name << ")'" << names << "'[" << zshQuote(opt.value)
                  << "]:" << zshQuote(opt.value) << ":" << zshAction(opt) << "'";
            } else if (opt.value.empty()) {
                o << " \\\n        '" << repeat << opt.name << "'";
            } else {
                o << " \\\n        '" << repeat << opt.name << "=[" << zshQuote(opt.value) << "]:" << zshQuote(opt.value) << ":"
                  << zshAction(opt) << "'";
            }
        }
        for (std::size_t i = 0; i < c.positionals.size(); ++i)
            o << " \\\n        '" << (i + 1) << (c.positionals[i].rfind('[', 0) == 0 ? "::" : ":") << zshQuote(c.positionals[i]) << ":"
              << (c.positionalCompletes == Completes::Movie ? "_files -g \"*.(" + movieGlob + ")(-.)\"" : std::string("_files")) << "'";
        o << " ;;\n";
    }
    o << "    esac ;;\n  esac\n}\n\n_dubmatch_cli \"$@\"\n";
    return o.str();
}

} // namespace

std::string completionScript(std::string const& shell)
{
    if (shell == "bash") return bashScript();
    if (shell == "zsh") return zshScript();
    throw UsageError("no completion for the shell \"" + shell + "\" (bash or zsh)");
}

} // namespace commandline
