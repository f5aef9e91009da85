// The completion scripts: a table of the commands, and a function that walks the typed words along
// it. Behind an option that takes a value, and where nothing is known, file names are offered.
#include <string_view>

#include "tools/easctl/cli/CommandTree.h"

namespace easctl {
namespace {

std::string quoted(const std::string& text) {
    std::string result = "'";
    for (const char c : text)
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + '\'';
}

/// An item of a list: its name; for zsh with a text, as _describe reads it.
std::string item(const std::string& name, const std::string& text, bool texts) {
    if (!texts)
        return name;
    std::string escaped;
    for (const char c : name)
        escaped += c == ':' ? std::string("\\:") : std::string(1, c);
    return quoted(escaped + ':' + text);
}

std::string last_word(const std::string& path) {
    return path.substr(path.rfind(' ') + 1);
}

/// NAME=(...) for zsh, NAME='...' for bash.
std::string list(const std::string& name, const std::string& items, bool texts) {
    return name + (texts ? "=(" + items + ") " : "='" + items + "' ");
}

/// One row per command, then one per option with listed values.
std::string rows(const CommandEntry& command, const std::vector<OptionEntry>& inherited,
                 bool texts) {
    std::vector<OptionEntry> options = command.options;
    options.insert(options.end(), inherited.begin(), inherited.end());
    std::string names, flags, valued, values, below;
    for (const OptionEntry& option : options) {
        if (option.positional)
            continue;
        std::string pattern;
        for (const std::string& name : option.names) {
            flags += item(name, option.text, texts) + ' ';
            if (!option.value.empty())
                valued += name + ' ';
            pattern += (pattern.empty() ? "'" : " | '") + command.name + ' ' + name + '\'';
        }
        std::string choices;
        for (const std::string& choice : option.choices)
            choices += choice + ' ';
        if (!choices.empty())
            values += "    " + pattern + ") " + list("values", choices, texts) + ";;\n";
    }
    std::vector<OptionEntry> passed_on;
    for (const OptionEntry& option : options) {
        if (command.name.empty() && option.names.back() != "--help" &&
            option.names.back() != "--version")
            passed_on.push_back(option);
    }
    for (const CommandEntry& child : command.commands) {
        names += item(last_word(child.name), child.text, texts) + ' ';
        below += rows(child, command.name.empty() ? passed_on : inherited, texts);
    }
    return "    '" + command.name + "') " + list("names", names, texts) +
           list("flags", flags, texts) + list("valued", valued, texts) + ";;\n" + values + below;
}

constexpr std::string_view bash_function = R"(
_easctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} where= word= option= first= names flags valued values=
    COMPREPLY=()
    _easctl_at ''
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [[ $word == = ]]; then
            continue
        elif [[ $option ]]; then
            option=
        elif [[ $word == -- ]]; then
            return
        elif [[ " $valued " == *" $word "* ]]; then
            option=$word
        elif [[ " $names " == *" $word "* ]]; then
            where+=${where:+ }$word
            _easctl_at "$where"
        fi
    done
    [[ $cur != = ]] || cur=
    if [[ $option ]]; then
        _easctl_at "$where $option"
        names=$values
        [[ $cur != *,* ]] || first=${cur%,*},
    elif [[ $cur == -* ]]; then
        names=$flags
    fi
    mapfile -t COMPREPLY < <(compgen -P "$first" -W "$names" -- "${cur#"$first"}")
}
complete -o default -F _easctl easctl
)";

constexpr std::string_view zsh_function = R"(
_easctl() {
    local where= word= option=
    local -a names flags valued values
    _easctl_at ''
    for word in "${(@)words[2,CURRENT-1]}"; do
        if [[ -n $option ]]; then
            option=
        elif [[ $word == -- ]]; then
            _files
            return
        elif (( ${valued[(Ie)$word]} )); then
            option=$word
        elif (( ${#names[(r)$word:*]} )); then
            where+=${where:+ }$word
            _easctl_at "$where"
        fi
    done
    if [[ -n $option ]]; then
        _easctl_at "$where $option"
        if (( $#values )); then
            compset -P '*,'  # of a list its last item
            _describe value values
        else
            _files
        fi
    elif [[ ${words[CURRENT]} == -* ]]; then
        _describe -o option flags
    elif (( $#names )); then
        _describe command names
    else
        _files
    fi
}
_easctl "$@"
)";

}  // namespace

std::string completion_script(const CommandEntry& root, const std::string& shell) {
    const bool zsh = shell == "zsh";
    return std::string(zsh ? "#compdef easctl\n" : "# bash completion for easctl\n") +
           "# Written by \"easctl completion " + shell +
           "\".\n\n_easctl_at() {\n    case \"$1\" in\n" + rows(root, {}, zsh) + "    esac\n}\n" +
           std::string(zsh ? zsh_function : bash_function);
}

}  // namespace easctl
