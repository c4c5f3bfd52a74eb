// SPDX-License-Identifier: MIT
// Writes what is made from the option tables, into the directory that it is given: the manual page
// and the completions for bash and zsh.
#include "commands.h"
#include "linkregistry.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <fstream>

namespace
{

std::vector<std::string> names(const CLI::Option& option)
{
    std::vector<std::string> all;
    for (const std::string& name : option.get_snames()) {
        all.push_back('-' + name);
    }
    for (const std::string& name : option.get_lnames()) {
        all.push_back("--" + name);
    }
    return all;
}

bool takesValue(const CLI::Option& option)
{
    return option.get_items_expected_max() > 0;
}

bool takes(const CLI::Option& option, const char* type)
{
    return option.get_type_name() == type;
}

std::string valueName(const CLI::Option& option)
{
    return option.get_type_name().empty() ? "VALUE" : option.get_type_name();
}

/// Each character of \a text, or what stands for it.
std::string translated(const std::string& text, const std::map<char, std::string>& table)
{
    std::string result;
    for (const char character : text) {
        const auto found = table.find(character);
        result += found == table.end() ? std::string(1, character) : found->second;
    }
    return result;
}

std::string roff(const std::string& text)
{
    return translated(text, {{'\\', "\\e"},
                             {'-', "\\-"},
                             {'\'', "\\(aq"},
                             {'~', "\\(ti"},
                             {'^', "\\(ha"},
                             {'\n', "\n\\&"}});
}

std::string joined(const std::vector<std::string>& words, const std::string& between)
{
    return CLI::detail::join(words, between);
}

std::vector<const CLI::App*> subcommands(const CLI::App& application)
{
    return application.get_subcommands({});
}

void writeOptions(const CLI::App& parser, std::ostream& page)
{
    for (const std::string& group : parser.get_groups()) {
        if (group != "Options") {
            page << ".PP\n" << roff(group) << ":\n";
        }
        for (const CLI::Option* option : parser.get_options()) {
            if (option->get_group() != group) {
                continue;
            }
            page << ".TP\n";
            if (option->get_positional()) {
                page << "\\fI" << roff(valueName(*option)) << "\\fR\n";
            } else {
                page << "\\fB" << roff(joined(names(*option), ", ")) << "\\fR";
                page << (takesValue(*option) ? " \\fI" + roff(valueName(*option)) + "\\fR\n"
                                             : "\n");
            }
            page << roff(option->get_description()) << '\n';
        }
    }
}

void writeVerbatim(const std::string& text, std::ostream& page)
{
    page << ".PP\n.nf\n\\&" << roff(text) << "\n.fi\n";
}

void writeManual(const CLI::App& application, std::ostream& page)
{
    const std::string& name = application.get_name();
    page << ".\\\" SPDX-License-Identifier: MIT\n"
         << ".TH COREMANAGE 1 \"\" \"libCore_Manage " << COREMANAGE_VERSION
         << "\" \"User Commands\"\n.nh\n"
         << ".SH NAME\n"
         << name << " \\- " << roff(application.get_description()) << '\n'
         << ".SH SYNOPSIS\n.B " << name << "\n.I SUBCOMMAND\n.RI [ OPTIONS ]\n"
         << ".SH OPTIONS\n";
    writeOptions(application, page);
    writeVerbatim(application.get_footer(), page);
    page << ".SH SUBCOMMANDS\n";
    for (const CLI::App* subcommand : subcommands(application)) {
        page << ".SS " << name << ' ' << subcommand->get_name() << '\n'
             << roff(subcommand->get_description()) << ".\n";
        writeOptions(*subcommand, page);
        writeVerbatim(subcommand->get_footer(), page);
    }
}

std::string linkSchemes()
{
    std::string schemes;
    for (const LinkKind& kind : linkregistry::kinds()) {
        schemes += std::string(" ") + kind.scheme + "://";
    }
    return schemes;
}

void writeBash(const CLI::App& application, std::ostream& script)
{
    std::vector<std::string> first;
    std::string cases;
    const auto caseOf = [](const CLI::App& parser, std::vector<std::string> words) {
        std::vector<std::string> files{"--"};
        std::vector<std::string> values{"--"};
        std::string links;
        for (const CLI::Option* option : parser.get_options()) {
            const std::vector<std::string> all = names(*option);
            words.insert(words.end(), all.begin(), all.end());
            if (option->get_positional()) {
                links = takes(*option, "LINK") ? linkSchemes() : "";
            } else if (takesValue(*option)) {
                auto& kind = takes(*option, "FILE") ? files : values;
                kind.insert(kind.end(), all.begin(), all.end());
            }
        }
        return " words='" + joined(words, " ") + links + "' files='" + joined(files, "|") +
               "' values='" + joined(values, "|") + "' ;;\n";
    };
    for (const CLI::App* subcommand : subcommands(application)) {
        first.push_back(subcommand->get_name());
        cases += "    " + subcommand->get_name() + ')' + caseOf(*subcommand, {});
    }
    script << "# SPDX-License-Identifier: MIT\n"
              "_coremanage()\n{\n"
              "    local words files values subcommand=${COMP_WORDS[1]-}\n"
              "    [ \"$COMP_CWORD\" -gt 1 ] || subcommand=\n"
              "    case $subcommand in\n"
           << cases << "    *)" << caseOf(application, first)
           << "    esac\n"
              "    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}\n"
              "    if [[ \"|$files|\" == *\"|$before|\"* ]]; then\n"
              "        compopt -o filenames 2>/dev/null\n"
              "        mapfile -t COMPREPLY < <(compgen -f -- \"$word\")\n"
              "    elif [[ \"|$values|\" == *\"|$before|\"* ]]; then\n"
              "        COMPREPLY=()\n"
              "    else\n"
              "        mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$word\")\n"
              "        [[ ${COMPREPLY[0]-} != *:// ]] || compopt -o nospace 2>/dev/null\n"
              "    fi\n"
              "}\ncomplete -F _coremanage coremanage\n";
}

std::string quoted(const std::string& text)
{
    return translated(text, {{'\'', "'\\''"}, {'[', "\\["}, {']', "\\]"}, {':', "\\:"}});
}

void writeZsh(const CLI::App& application, std::ostream& script)
{
    const auto writeArguments = [&script](const CLI::App& parser) {
        for (const CLI::Option* option : parser.get_options()) {
            const std::string value = ':' + quoted(valueName(*option)) + ':' +
                                      (takes(*option, "FILE")   ? "_files"
                                       : takes(*option, "LINK") ? "_coremanage_link"
                                                                : " ");
            const std::string help = '[' + quoted(option->get_description()) + ']';
            const bool several = option->get_items_expected_max() > 1;
            if (option->get_positional()) {
                script << " \\\n            '" << (several ? "*" : "") << value << '\'';
            }
            for (const std::string& name : names(*option)) {
                script << " \\\n            '"
                       << (several ? "*" : '(' + joined(names(*option), " ") + ')') << name
                       << (takesValue(*option) ? help + value : help) << '\'';
            }
        }
        script << '\n';
    };
    script << "#compdef coremanage\n# SPDX-License-Identifier: MIT\n"
              "_coremanage_link() { compadd -S '' --"
           << linkSchemes()
           << "; }\n"
              "_coremanage()\n{\n"
              "    local -a subcommands=(\n";
    for (const CLI::App* subcommand : subcommands(application)) {
        script << "        '" << subcommand->get_name() << ':'
               << quoted(subcommand->get_description()) << "'\n";
    }
    script << "    )\n"
              "    if (( CURRENT == 2 )); then\n"
              "        _describe subcommand subcommands\n"
              "        _arguments";
    writeArguments(application);
    script << "        return\n"
              "    fi\n"
              "    shift words\n"
              "    (( CURRENT-- ))\n"
              "    case $words[1] in\n";
    for (const CLI::App* subcommand : subcommands(application)) {
        script << "    " << subcommand->get_name() << ")\n        _arguments";
        writeArguments(*subcommand);
        script << "        ;;\n";
    }
    script << "    esac\n}\n_coremanage \"$@\"\n";
}

void writeAll(const std::string& directory)
{
    CLI::App application;
    int code = 0;
    commandline::build(application, code);
    struct Page {
        const char* name;
        void (*write)(const CLI::App& application, std::ostream& out);
    };
    for (const Page& page : {Page{"coremanage.1", writeManual}, Page{"coremanage.bash", writeBash},
                             Page{"_coremanage", writeZsh}}) {
        std::ofstream file;
        file.exceptions(std::ios::failbit | std::ios::badbit);
        file.open(directory + '/' + page.name);
        page.write(application, file);
        file.flush();
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: coremanage_manual DIRECTORY\n", stderr);
        return 2;
    }
    try {
        writeAll(argv[1]);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "coremanage_manual: %s: %s\n", argv[1], error.what());
        return 1;
    }
}
