// The manual page and the bash completion, both made from the command table
// that --help prints, so that neither can drift from the program.
#include <ctype.h>

#include <set>
#include <sstream>

#include "tools/netmgrctl/cli.h"

namespace netmgrctl
{

namespace
{

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::string trimmed(const std::string &line)
{
    size_t first = line.find_first_not_of(' ');
    return first == std::string::npos ? std::string() : line.substr(first);
}

// roff: a backslash is written \e, and a line must not start with a
// control character.
std::string roff(const std::string &line)
{
    std::string text;
    for (char c : line) {
        if (c == '\\')
            text += "\\e";
        else if (c == '-')
            text += "\\-";
        else
            text.push_back(c);
    }
    if (!text.empty() && (text[0] == '.' || text[0] == '\''))
        text = "\\&" + text;
    return text;
}

void preformatted(std::string &page, const std::string &text)
{
    page += ".nf\n";
    for (const std::string &line : lines_of(text))
        page += roff(line) + "\n";
    page += ".fi\n";
}

bool action_word(const std::string &word)
{
    if (word.empty())
        return false;
    for (char c : word) {
        if (!islower(static_cast<unsigned char>(c)) && !isdigit(static_cast<unsigned char>(c)) &&
            c != '-')
            return false;
    }
    return word[0] != '-';
}

// The words that may follow the command name, as its usage lines show them
// ("netmgrctl wifi on|off" gives on and off); placeholders are upper case.
std::vector<std::string> actions_of(const Command &cmd)
{
    std::vector<std::string> actions;
    std::set<std::string> seen;
    std::string prefix = std::string("netmgrctl ") + cmd.name + " ";
    for (const std::string &raw : lines_of(cmd.usage)) {
        std::string line = trimmed(raw);
        if (line.compare(0, prefix.size(), prefix) != 0)
            continue;
        std::string first = line.substr(prefix.size());
        first = first.substr(0, first.find(' '));
        std::istringstream words(first);
        for (std::string word; std::getline(words, word, '|');) {
            if (action_word(word) && seen.insert(word).second)
                actions.push_back(word);
        }
    }
    return actions;
}

std::string joined(const std::vector<std::string> &words)
{
    std::string text;
    for (const std::string &word : words)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

const char *const kGlobalOptions[] = {"--timeout", "--json", "--verbose", "--help", "--version"};

} // namespace

std::string manual_page()
{
    std::string page;
    page += ".TH NETMGRCTL 1 \"\" \"netmgr " NETMGR_VERSION "\" \"User Commands\"\n";
    page += ".SH NAME\nnetmgrctl \\- network management from the command line (libnetmgr)\n";
    page += ".SH SYNOPSIS\n";
    std::string usage = kGlobalUsage;
    if (usage.compare(0, 7, "usage: ") == 0)
        usage = usage.substr(7);
    preformatted(page, usage);
    page += ".SH DESCRIPTION\n"
            "netmgrctl runs libnetmgr, a client of the ConnMan daemon, for one command, or\n"
            "for a script of commands, and prints the result. When another process already\n"
            "runs the library, netmgrctl reads that process's state instead.\n";
    page += ".SH COMMANDS\n";
    for (const Command &cmd : commands()) {
        page += ".SS " + roff(cmd.name) + "\n" + roff(cmd.summary) + ".\n.PP\n";
        std::string usage_lines;
        for (const std::string &line : lines_of(cmd.usage))
            usage_lines += trimmed(line) + "\n";
        preformatted(page, usage_lines);
        page += ".PP\n";
        preformatted(page, cmd.details);
        if (!cmd.options.empty()) {
            std::vector<std::string> options(cmd.options.begin(), cmd.options.end());
            page += ".PP\nOptions: " + roff(joined(options)) + "\n";
        }
    }
    page += ".SH OPTIONS\n";
    preformatted(page, kGlobalDetails);
    return page;
}

std::string bash_completion()
{
    std::string script =
        "# bash completion for netmgrctl (generated from its command table)\n"
        "_netmgrctl()\n"
        "{\n"
        "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
        "    local i cmd='' at=0\n"
        "    case $prev in\n"
        "        --timeout|--passphrase|--ssid|--count|--duration) return ;;\n"
        "        --security) COMPREPLY=($(compgen -W 'psk wep none' -- \"$cur\")); return ;;\n"
        "        --privacy) COMPREPLY=($(compgen -W 'disabled enabled prefered' -- \"$cur\")); "
        "return ;;\n"
        "    esac\n"
        "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
        "        case ${COMP_WORDS[i]} in\n"
        "            --timeout|--passphrase|--security|--ssid|--privacy|--count|--duration) "
        "((i++)) ;;\n"
        "            -*) ;;\n"
        "            *) cmd=${COMP_WORDS[i]}; at=$i; break ;;\n"
        "        esac\n"
        "    done\n"
        "    local words='" +
        joined(std::vector<std::string>(std::begin(kGlobalOptions), std::end(kGlobalOptions))) +
        "'\n"
        "    case $cmd in\n";
    std::vector<std::string> names;
    for (const Command &cmd : commands()) {
        names.push_back(cmd.name);
        std::vector<std::string> options(cmd.options.begin(), cmd.options.end());
        std::vector<std::string> actions = actions_of(cmd);
        script += std::string("        ") + cmd.name + ")\n";
        if (!actions.empty())
            script += "            [ $((at + 1)) -eq $COMP_CWORD ] && words=\"$words " +
                      joined(actions) + "\"\n";
        if (!options.empty())
            script += "            words=\"$words " + joined(options) + "\"\n";
        if (std::string(cmd.name) == "script")
            script += "            COMPREPLY=($(compgen -f -- \"$cur\"))\n";
        script += "            ;;\n";
    }
    script += "        '') words=\"$words " + joined(names) +
              "\" ;;\n"
              "    esac\n"
              "    COMPREPLY+=($(compgen -W \"$words\" -- \"$cur\"))\n"
              "}\n"
              "complete -F _netmgrctl netmgrctl\n";
    return script;
}

} // namespace netmgrctl
