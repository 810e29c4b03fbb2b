// SPDX-License-Identifier: GPL-2.0-only
// The completion scripts are made of the parser itself, so that they know what it knows. What a value is, of which the
// parser has only a text, is told by its name.
#include "command.h"

#include "failure.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace qbackup
{
namespace
{

enum class Kind { flag, text, file, device, id, job, choice };

struct Word {
    std::vector<std::string> names; // with dashes; of a positional none
    std::string help;
    Kind kind = Kind::text;
    std::vector<std::string> choices;
    bool several = false;
};

struct Command {
    std::string name; // of the program itself: empty
    std::string help;
    std::vector<Word> words;
    std::vector<Word> positionals;
};

Kind kindOf(const std::string& name)
{
    static const std::set<std::string> paths{"from", "to",     "control", "socket", "html", "config", "TARGET", "FROM",
                                             "TO",   "BACKUP", "DIR",     "A",      "B",    "IMAGE",  "spool"};
    static const std::map<std::string, Kind> others{
        {"device", Kind::device}, {"DEVICE", Kind::device}, {"at", Kind::id}, {"JOB", Kind::job}};
    if (paths.contains(name))
        return Kind::file;
    const auto other = others.find(name);
    return other == others.end() ? Kind::text : other->second;
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

// "{a,b}" and "{a->0,b->1}" are what a set and a map of values call themselves.
std::vector<std::string> choicesOf(CLI::Option& option)
try {
    std::vector<std::string> choices;
    const std::string text = option.get_validator(0)->get_description();
    if (!text.starts_with('{') || !text.ends_with('}'))
        return choices;
    for (const std::string& part : CLI::detail::split(text.substr(1, text.size() - 2), ','))
        choices.push_back(part.substr(0, part.find("->")));
    return choices;
} catch (const CLI::OptionNotFound&) {
    return {};
}

Command read(CLI::App& app, bool is_program)
{
    Command command{is_program ? "" : app.get_name(), firstLine(app.get_description()), {}, {}};
    for (CLI::Option* option : app.get_options()) {
        Word word;
        for (const std::string& name : option->get_snames())
            word.names.push_back("-" + name);
        for (const std::string& name : option->get_lnames())
            word.names.push_back("--" + name);
        word.help = firstLine(option->get_description());
        word.choices = choicesOf(*option);
        word.several = option->get_items_expected_max() > 1;
        const std::string key = option->get_lnames().empty() ? option->get_name(true) : option->get_lnames().front();
        word.kind = option->get_items_expected_max() == 0 ? Kind::flag
                    : !word.choices.empty()               ? Kind::choice
                                                          : kindOf(key);
        if (option->get_positional()) {
            Word positional = word;
            positional.names.clear();
            command.positionals.push_back(positional);
        }
        if (!word.names.empty())
            command.words.push_back(word);
    }
    return command;
}

// The program first.
std::vector<Command> readAll(CLI::App& program)
{
    std::vector<Command> commands{read(program, true)};
    for (CLI::App* sub : program.get_subcommands([](CLI::App*) { return true; }))
        commands.push_back(read(*sub, false));
    return commands;
}

std::string joined(const std::vector<std::string>& words, const char* between = " ")
{
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : between) + word;
    return text;
}

// Each of `special` gets `with` before it.
std::string escaped(const std::string& text, const std::string& special, const std::string& with = "\\")
{
    std::string result;
    for (const char c : text)
        result += special.find(c) == std::string::npos ? std::string{c} : with + c;
    return result;
}

std::string quoted(const std::string& text)
{
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' ? "'\\''" : std::string{c};
    return result + "'";
}

// Devices that are mounted, the ids of the backups in what --from names, and jobs.
constexpr const char* devices_command = R"(lsblk -lnpo NAME,MOUNTPOINT 2>/dev/null | awk 'NF > 1 { print $1 }')";
constexpr const char* ids_filter = R"~(sed -n 's/.*"id":"\([^"]*\)".*/\1/p')~";
constexpr const char* jobs_command = "command qbackup run --list 2>/dev/null | cut -d : -f 1";

std::string forBash(const std::vector<Command>& commands)
{
    const auto complete = [](const Word& word, const std::string& indent) -> std::string {
        switch (word.kind) {
        case Kind::file:
            return indent + "compopt -o filenames\n" + indent +
                   "mapfile -t COMPREPLY < <(compgen -f -- \"$current\")\n";
        case Kind::device:
            return indent + "mapfile -t COMPREPLY < <(compgen -W \"$(_qbackup_devices)\" -- \"$current\")\n";
        case Kind::id:
            return indent + "mapfile -t COMPREPLY < <(compgen -W \"$(_qbackup_ids)\" -- \"$current\")\n";
        case Kind::job:
            return indent + "mapfile -t COMPREPLY < <(compgen -W \"$(_qbackup_jobs)\" -- \"$current\")\n";
        case Kind::choice:
            return indent + "mapfile -t COMPREPLY < <(compgen -W " + quoted(joined(word.choices)) +
                   " -- \"$current\")\n";
        default:
            return indent + ":\n";
        }
    };
    std::string text =
        "# bash completion for qbackup(1), made by 'qbackup completion bash'\n"
        "_qbackup_devices() { " +
        std::string{devices_command} +
        "; }\n"
        "_qbackup_jobs() { " +
        std::string{jobs_command} +
        "; }\n"
        "_qbackup_ids() {\n"
        "  local i\n"
        "  for ((i = 1; i < COMP_CWORD; i++)); do\n"
        "    [[ ${COMP_WORDS[i]} == --from ]] && command qbackup list --json --from \"${COMP_WORDS[i + 1]}\" "
        "2>/dev/null | " +
        ids_filter +
        "\n"
        "  done\n"
        "}\n"
        "_qbackup() {\n"
        "  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command= word\n"
        "  COMPREPLY=()\n"
        "  for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
        "    [[ -z $command ]] && case $word in\n";
    std::vector<std::string> names;
    for (const Command& command : commands)
        if (!command.name.empty())
            names.push_back(command.name);
    text += "      " + joined(names, " | ") + ") command=$word ;;\n    esac\n  done\n";
    // Values.
    text += "  case $command:$previous in\n";
    for (const Command& command : commands)
        for (const Word& word : command.words)
            if (word.kind != Kind::flag) {
                std::vector<std::string> patterns;
                for (const std::string& name : word.names)
                    patterns.push_back((command.name.empty() ? "*" : command.name) + ":" + name);
                text +=
                    "    " + joined(patterns, " | ") + ")\n" + complete(word, "      ") + "      return\n      ;;\n";
            }
    text += "  esac\n  if [[ $current != -* ]]; then\n    case $command in\n      '') mapfile -t COMPREPLY < <(compgen "
            "-W " +
            quoted(joined(names)) + " -- \"$current\") ;;\n";
    for (const Command& command : commands)
        if (!command.positionals.empty())
            text +=
                "      " + command.name + ")\n" + complete(command.positionals.front(), "        ") + "        ;;\n";
    text +=
        "    esac\n    [[ $command != '' && -n $current || ${#COMPREPLY[@]} -gt 0 ]] && return\n  fi\n  local words=";
    const auto all = [](const Command& command) {
        std::vector<std::string> words;
        for (const Word& word : command.words)
            if (command.name.empty() || word.names.back() != "--help")
                words.push_back(word.names.back());
        return joined(words);
    };
    // --version is the program's own; the others are understood behind a subcommand, too.
    text += quoted(all(commands.front())) + "\n  case $command in\n";
    for (const Command& command : commands)
        if (!command.name.empty())
            text += "    " + command.name + ") words=\"${words/ --version/} " + all(command) + "\" ;;\n";
    return text + "  esac\n  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n}\ncomplete -F _qbackup "
                  "qbackup\n";
}

std::string forZsh(const std::vector<Command>& commands)
{
    const auto action = [](const Word& word) -> std::string {
        switch (word.kind) {
        case Kind::file:
            return "_files";
        case Kind::device:
            return "_qbackup_devices";
        case Kind::id:
            return "_qbackup_ids";
        case Kind::job:
            return "_qbackup_jobs";
        case Kind::choice:
            return "(" + joined(word.choices) + ")";
        default:
            return " ";
        }
    };
    const auto specs = [&](const Command& command) {
        std::string text;
        for (const Word& word : command.words) {
            const std::string help = escaped(word.help, "[]:\\");
            const std::string value = word.kind == Kind::flag ? "" : ":value:" + action(word);
            for (const std::string& name : word.names)
                text += " \\\n        " + quoted("(" + joined(word.names) + ")" + name + "[" + help + "]" + value);
        }
        for (const Word& word : command.positionals)
            text += " \\\n        " +
                    quoted((word.several ? "*:" : ":") + escaped(word.help, ":\\[]") + ":" + action(word));
        return text;
    };
    // What is understood behind each subcommand, too.
    Command everywhere = commands.front();
    std::erase_if(everywhere.words,
                  [](const Word& word) { return word.names.back() == "--help" || word.names.back() == "--version"; });
    std::string text = "#compdef qbackup\n# zsh completion for qbackup(1), made by 'qbackup completion zsh'\n"
                       "_qbackup_devices() {\n  local -a found\n  found=(${(f)\"$(" +
                       std::string{devices_command} +
                       ")\"})\n  compadd -a found\n}\n"
                       "_qbackup_jobs() {\n  local -a found\n  found=(${(f)\"$(" +
                       jobs_command +
                       ")\"})\n  compadd -a found\n}\n"
                       "_qbackup_ids() {\n  local at=${words[(i)--from]}\n  local -a found\n"
                       "  found=(${(f)\"$(command qbackup list --json --from ${(Q)words[at + 1]} 2>/dev/null | " +
                       ids_filter +
                       ")\"})\n  compadd -a found\n}\n"
                       "_qbackup() {\n  local context state state_descr line\n  typeset -A opt_args\n"
                       "  local -a commands\n  commands=(\n";
    for (const Command& command : commands)
        if (!command.name.empty())
            text += "    " + quoted(command.name + ":" + escaped(command.help, ":\\")) + "\n";
    text += "  )\n  _arguments -C" + specs(commands.front()) +
            " \\\n        '1:command:->command' '*::argument:->argument'\n  case $state in\n"
            "    command) _describe command commands ;;\n    argument)\n      case $line[1] in\n";
    for (const Command& command : commands)
        if (!command.name.empty())
            text += "      " + command.name + ") _arguments" + specs(command) + specs(everywhere) + " ;;\n";
    return text + "      esac\n      ;;\n  esac\n}\nif [[ $funcstack[1] == _qbackup ]]; then _qbackup \"$@\"; else "
                  "compdef _qbackup qbackup; fi\n";
}

std::string forFish(const std::vector<Command>& commands)
{
    const auto fish = [](const std::string& text) { return "'" + escaped(text, "'\\") + "'"; };
    const auto values = [&](const Word& word) -> std::string {
        switch (word.kind) {
        case Kind::flag:
            return "";
        case Kind::file:
            return " -r -F";
        case Kind::device:
            return " -x -a '(__qbackup_devices)'";
        case Kind::id:
            return " -x -a '(__qbackup_ids)'";
        case Kind::job:
            return " -x -a '(__qbackup_jobs)'";
        case Kind::choice:
            return " -x -a " + fish(joined(word.choices));
        default:
            return " -x";
        }
    };
    std::vector<std::string> names;
    for (const Command& command : commands)
        if (!command.name.empty())
            names.push_back(command.name);
    std::string text =
        "# fish completion for qbackup(1), made by 'qbackup completion fish'\n"
        "function __qbackup_devices\n  " +
        std::string{devices_command} +
        "\nend\n"
        "function __qbackup_jobs\n  " +
        jobs_command +
        "\nend\n"
        "function __qbackup_ids\n  set -l words (commandline -opc)\n  set -l at (contains -i -- --from $words)\n"
        "  and command qbackup list --json --from $words[(math $at + 1)] 2>/dev/null | " +
        ids_filter + "\nend\ncomplete -c qbackup -f\n";
    for (const Command& command : commands) {
        std::string when = "__fish_seen_subcommand_from " + command.name;
        if (command.name.empty())
            when = "";
        else
            text += "complete -c qbackup -n 'not __fish_seen_subcommand_from " + joined(names) + "' -a " +
                    command.name + " -d " + fish(command.help) + "\n";
        const std::string condition = when.empty() ? "" : " -n " + fish(when);
        for (const Word& word : command.words) {
            text += "complete -c qbackup" + condition;
            for (const std::string& name : word.names)
                text += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
            text += values(word) + " -d " + fish(word.help) + "\n";
        }
        if (!command.positionals.empty() && command.positionals.front().kind != Kind::text) {
            const Word& first = command.positionals.front();
            text += "complete -c qbackup" + condition + (first.kind == Kind::file ? " -F" : values(first)) + "\n";
        }
    }
    return text;
}

} // namespace

void addCompletion(CLI::App& app, Context& context)
{
    const auto shell = std::make_shared<std::string>();
    CLI::App* command =
        app.add_subcommand("completion", "Print a script that completes command lines of qbackup in a shell");
    command->add_option("SHELL", *shell, "bash, zsh or fish")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}))
        ->type_name("");
    command->callback([&app, &context, shell] {
        context.chosen = [&app, shell] {
            const std::vector<Command> commands = readAll(app);
            const std::string text = *shell == "bash"  ? forBash(commands)
                                     : *shell == "zsh" ? forZsh(commands)
                                                       : forFish(commands);
            std::fputs(text.c_str(), stdout);
            return static_cast<int>(Exit::ok);
        };
    });
}

} // namespace qbackup
