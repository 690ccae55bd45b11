// Declaring the command line, and the layout of --help.
#include "CommandLine.hpp"

#include <kel/KelMemory.h>
#include <kel/host/errors.hpp>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <string_view>

#include "Console.hpp"
#include "Files.hpp"

namespace kel::tool {
namespace {

/// Options with their argument, default and the first line of their description, without the lists
/// that are derived from checks.
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() { column_width(26); }
  std::string make_usage(const CLI::App* app, std::string) const override {
    const std::string name = app->get_name();
    if (app->get_parent() == nullptr) return "Usage: kel COMMAND [OPTIONS] FILE...\n";
    if (name == "info" || name == "check" || name == "bench")
      return "\nUsage: kel " + name + " [OPTIONS] FILE...\n";
    if (name == "compare") return "\nUsage: kel compare [OPTIONS] A B\n";
    return "\nUsage: kel " + name + " [OPTIONS] IN OUT\n       kel " + name +
           " [OPTIONS] IN... DIR\n";
  }
  std::string make_positionals(const CLI::App*) const override { return {}; }
  std::string make_option_desc(const CLI::Option* option) const override {
    const std::string text = option->get_description();
    return text.substr(0, text.find('\n'));
  }
  std::string make_option_opts(const CLI::Option* option) const override {
    if (option->get_type_size() == 0) return {};
    const std::string type = option->get_type_name();
    const std::string preset = option->get_default_str();
    return " " + type.substr(0, type.find(':')) + (preset.empty() ? "" : " [" + preset + "]");
  }
};

std::string FailureMessage(const CLI::App*, const CLI::Error& error) {
  const bool noFiles = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError);
  return std::string("kel: ") + (noFiles ? "files are missing" : error.what()) +
         "; --help tells what is possible\n";
}

/// A subcommand, and what declares it.
struct Command {
  std::string_view name;
  void (*add)(CLI::App& app, Run& run);
};
constexpr Command kCommands[] = {
    {"encode", AddEncodeCommand},   {"decode", AddDecodeCommand},   {"info", AddInfoCommand},
    {"preview", AddPreviewCommand}, {"compare", AddCompareCommand}, {"trim", AddTrimCommand},
    {"check", AddCheckCommand},     {"repair", AddRepairCommand},   {"bench", AddBenchCommand},
};

bool HasCommand(std::string_view name) {
  return std::ranges::count(kCommands, name, &Command::name) != 0;
}

int RunChosen(const Run& run, const std::string& command) {
  try {
    return run();
  } catch (const UsageError& error) {
    PrintMessage(std::string(error.what()) + "; see kel " + command + " --help");
    return kUsage;
  } catch (const host::Error& error) {
    PrintMessage(Describe(error));
    return ExitCodeOf(error);
  } catch (const std::bad_alloc&) {
    PrintMessage("out of memory");
    return kMemoryLimit;
  }
}

}  // namespace

void DeclareCommandLine(CLI::App& app, Run& run, std::string_view only) {
  app.name("kel");
  app.description("Encodes and decodes images with the Kel wavelet codec.");
  app.formatter(std::make_shared<HelpFormatter>());
  app.failure_message(FailureMessage);
  for (const Command& command : kCommands) {
    if (only.empty() || command.name == only) command.add(app, run);
  }
  app.require_subcommand(1);
  app.set_version_flag(
      "--version", std::string("kel ") + KelLibVersion() + ", library built " + KelLibBuildDate());
  app.footer(
      "Examples:\n"
      "  kel encode photo.png photo.kel       a photo into a small file\n"
      "  kel decode photo.kel back.png        and back\n"
      "  kel compare photo.png back.png       how far it is from the original\n"
      "  kel info photo.kel                   what is in the file\n"
      "kel COMMAND --help tells the options of a command.\n");
}

int RunCommandLine(int argc, char** argv) {
  CLI::App app;
  Run run;
  // The options of all commands take as long as a small picture: one that is named goes alone.
  const bool isNamed = argc >= 2 && HasCommand(argv[1]);
  DeclareCommandLine(app, run, isNamed ? argv[1] : "");
  if (argc < 2) {
    std::cerr << app.help();
    return kUsage;
  }
  if (argv[1][0] != '-' && !isNamed) {
    PrintMessage(std::string("there is no command ") + argv[1] + "; kel --help lists all");
    return kUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kUsage;
  }
  return RunChosen(run, app.get_subcommands().front()->get_name());
}

}  // namespace kel::tool
