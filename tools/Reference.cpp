// The manual page, the completion and the table of options, written from the declared command
// line, so that none of them can lack an option that another has.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "CommandLine.hpp"

namespace kel::tool {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kAbout =
    R"(.B kel
turns image files into Kel files and back, lossless or lossy, and tells what is in them.
The format of an input is recognised by its first bytes, that of an output by the ending of its
name.
.PP
A dash as a file name stands for standard input or standard output.
Output is written beside its name and renamed when it is whole; a run that fails or is interrupted
leaves no file behind and does no harm to an existing one. No output ever replaces one of the
inputs. An existing file is replaced when it is named as the output; in a folder of outputs only
with
.BR \-\-overwrite .
)";

constexpr const char* kExitStatus =
    R"(.SH EXIT STATUS
.TP
.B 0
Done.
.TP
.B 1
The command line is wrong, or asks for something that the image does not allow. For
.BR compare ,
the images differ.
.TP
.B 2
An input cannot be read or decoded.
.TP
.B 3
An input is incomplete or damaged. Without
.B \-\-strict
what is there has been written.
.TP
.B 4
An output cannot be written, or its format cannot hold the image.
.TP
.B 5
A limit on memory or pixels would be exceeded.
.TP
.B 6
The time limit was reached.
.PP
With several files it is the worst of all.
)";

std::vector<const CLI::App*> CommandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App*) { return true; });
}

/// The options of a command, without the positional ones.
std::vector<const CLI::Option*> OptionsOf(const CLI::App& command) {
  std::vector<const CLI::Option*> options;
  for (const CLI::Option* option : command.get_options([](const CLI::Option*) { return true; })) {
    if (option->nonpositional()) options.push_back(option);
  }
  return options;
}

std::vector<std::string> SpellingsOf(const CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : option.get_snames()) names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) names.push_back("--" + name);
  return names;
}

bool TakesValue(const CLI::Option& option) {
  return option.get_type_size() != 0;
}

/// What stands for the value in texts, such as FILE.
std::string ValueName(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  return type.substr(0, type.find(':'));
}

/// The values that an option is limited to, from the check that says "{a,b}".
std::vector<std::string> ChoicesOf(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  const std::size_t first = type.find('{'), last = type.find('}');
  std::vector<std::string> choices;
  if (first == type.npos || last == type.npos) return choices;
  std::istringstream list(type.substr(first + 1, last - first - 1));
  for (std::string choice; std::getline(list, choice, ',');) choices.push_back(choice);
  return choices;
}

/// Text for roff: no character of it is a command.
std::string Roff(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\\' || c == '-') escaped += '\\';
    if ((c == '.' || c == '\'') && (escaped.empty() || escaped.back() == '\n')) escaped += "\\&";
    escaped += c;
  }
  return escaped;
}

/// A sentence made of a description: it begins with a capital and ends with a full stop.
std::string Sentence(std::string text) {
  if (text.empty()) return text;
  if (text[0] >= 'a' && text[0] <= 'z') text[0] = static_cast<char>(text[0] - 'a' + 'A');
  if (text.back() != '.') text += '.';
  return text;
}

void WriteOption(const CLI::Option& option, std::ostream& out) {
  out << ".TP\n";
  std::string line;
  for (const std::string& name : SpellingsOf(option)) {
    line += (line.empty() ? "\\fB" : ", \\fB") + Roff(name) + "\\fR";
    if (TakesValue(option)) line += " \\fI" + Roff(ValueName(option)) + "\\fR";
  }
  const std::string text = option.get_description();
  const std::size_t end = text.find('\n');
  out << line << '\n' << Roff(Sentence(text.substr(0, end))) << '\n';
  if (end != text.npos) out << Roff(Sentence(text.substr(end + 1))) << '\n';
  std::string choices;
  for (const std::string& choice : ChoicesOf(option)) {
    choices += (choices.empty() ? "" : ", ") + choice;
  }
  if (!choices.empty()) out << Roff("One of " + choices + ".") << '\n';
  const std::string preset = option.get_default_str();
  if (!preset.empty()) out << Roff("The default is " + preset + ".") << '\n';
}

std::string Joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

/// What completes the value of an option, as an arm of a case statement; nothing for free values.
std::string CompletionArm(const CLI::Option& option) {
  std::string pattern;
  for (const std::string& name : SpellingsOf(option))
    pattern += (pattern.empty() ? "" : "|") + name;
  const std::vector<std::string> choices = ChoicesOf(option);
  if (!choices.empty()) return pattern + ") options='" + Joined(choices) + "' ;;";
  const std::string value = ValueName(option);
  if (value == "DIR")
    return pattern + ") mapfile -t COMPREPLY < <(compgen -d -- \"$word\"); return ;;";
  const bool isFile = value == "FILE" || value == "OUT" || value == "MASK" || value == "PREFIX";
  return isFile ? pattern + ") mapfile -t COMPREPLY < <(compgen -f -- \"$word\"); return ;;"
                : pattern + ") return ;;";
}

void WriteManual(const CLI::App& app, std::ostream& out) {
  std::string version = app.version();
  version = version.substr(0, version.find(','));
  out << ".TH KEL 1 \"\" \"" << version << "\" \"User Commands\"\n.SH NAME\n"
      << "kel \\- encode and decode images with the Kel wavelet codec\n.SH SYNOPSIS\n";
  for (const CLI::App* command : CommandsOf(app)) {
    std::istringstream usage(command->help());
    for (std::string line; std::getline(usage, line);) {
      const std::size_t at = line.find("kel " + command->get_name() + " ");
      if (at == line.npos || line.find("[OPTIONS]") == line.npos) continue;
      const std::string name = "kel " + command->get_name();
      out << ".B " << name << "\n.RI \"" << Roff(line.substr(at + name.size() + 1)) << "\"\n.br\n";
    }
  }
  out << ".SH DESCRIPTION\n" << kAbout << ".SH COMMANDS\n";
  for (const CLI::App* command : CommandsOf(app)) {
    out << ".SS kel " << command->get_name() << '\n'
        << Roff(Sentence(command->get_description())) << '\n';
    for (const CLI::Option* option : OptionsOf(*command)) WriteOption(*option, out);
    out << ".PP\n.nf\n" << Roff(command->get_footer()) << ".fi\n";
  }
  out << kExitStatus << ".SH EXAMPLES\n.nf\n" << Roff(app.get_footer()) << ".fi\n";
}

void WriteCompletion(const CLI::App& app, std::ostream& out) {
  std::vector<std::string> names;
  for (const CLI::App* command : CommandsOf(app)) names.push_back(command->get_name());
  out << "# Completion of the kel command for bash. Made from its table of options.\n_kel() {\n"
      << "  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}\n"
      << "  local options=\n  COMPREPLY=()\n  if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
      << "    mapfile -t COMPREPLY < <(compgen -W '" << Joined(names)
      << " --help --version' -- \"$word\")\n    return\n  fi\n  case ${COMP_WORDS[1]} in\n";
  for (const CLI::App* command : CommandsOf(app)) {
    std::vector<std::string> options;
    out << "    " << command->get_name() << ")\n      case $previous in\n";
    for (const CLI::Option* option : OptionsOf(*command)) {
      for (const std::string& name : SpellingsOf(*option)) {
        if (name.starts_with("--")) options.push_back(name);
      }
      if (TakesValue(*option)) out << "        " << CompletionArm(*option) << '\n';
    }
    out << "        *) [ \"${word#-}\" = \"$word\" ] || options='" << Joined(options)
        << "' ;;\n      esac ;;\n";
  }
  out << "  esac\n  if [ -n \"$options\" ]; then\n"
      << "    mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$word\")\n  else\n"
      << "    mapfile -t COMPREPLY < <(compgen -f -- \"$word\")\n  fi\n}\n"
      << "complete -o filenames -F _kel kel\n";
}

void WriteOptionTable(const CLI::App& app, std::ostream& out) {
  Json commands = Json::object();
  for (const CLI::App* command : CommandsOf(app)) {
    Json options = Json::array();
    for (const CLI::Option* option : OptionsOf(*command)) {
      Json entry = {{"names", SpellingsOf(*option)}, {"description", option->get_description()}};
      if (TakesValue(*option)) entry["value"] = ValueName(*option);
      if (!ChoicesOf(*option).empty()) entry["choices"] = ChoicesOf(*option);
      if (!option->get_default_str().empty()) entry["default"] = option->get_default_str();
      options.push_back(entry);
    }
    commands[command->get_name()] = {{"description", command->get_description()},
                                     {"options", options}};
  }
  out << commands.dump(2) << '\n';
}

}  // namespace

bool WriteReference(const std::string& folder) {
  CLI::App app;
  Run run;
  DeclareCommandLine(app, run);
  std::ofstream manual(folder + "/kel.1"), completion(folder + "/kel.bash");
  std::ofstream table(folder + "/kel-options.json");
  WriteManual(app, manual);
  WriteCompletion(app, completion);
  WriteOptionTable(app, table);
  return manual.good() && completion.good() && table.good();
}

}  // namespace kel::tool
