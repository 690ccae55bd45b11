// The `kel` command: reads the command line and runs one of its subcommands.
#include <kel/KelMemory.h>
#include <kel/host/errors.hpp>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

#include "Commands.hpp"
#include "Console.hpp"
#include "Files.hpp"
#include "OutputFile.hpp"

namespace kel::tool {
namespace {

std::string Version() {
  return std::string("kel ") + KelLibVersion() + ", library built " + KelLibBuildDate();
}

/// Options with their argument and default, without the lists that CLI11 derives from checks.
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() { column_width(26); }
  std::string make_usage(const CLI::App* app, std::string) const override {
    const std::string name = app->get_name();
    if (app->get_parent() == nullptr) return "Usage: kel COMMAND [OPTIONS] FILE...\n";
    if (name == "info") return "\nUsage: kel info [OPTIONS] FILE...\n";
    if (name == "compare") return "\nUsage: kel compare [OPTIONS] A B\n";
    return "\nUsage: kel " + name + " [OPTIONS] IN OUT\n       kel " + name +
           " [OPTIONS] --output-dir DIR IN...\n";
  }
  std::string make_positionals(const CLI::App*) const override { return {}; }
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

bool HasCommand(const CLI::App& app, const std::string& name) {
  const auto all = app.get_subcommands([](const CLI::App*) { return true; });
  return std::ranges::any_of(all,
                             [&](const CLI::App* command) { return command->get_name() == name; });
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

int RunCommandLine(int argc, char** argv) {
  CLI::App app("Encodes and decodes images with the Kel wavelet codec.", "kel");
  app.formatter(std::make_shared<HelpFormatter>());
  app.failure_message(FailureMessage);
  Run run;
  AddEncodeCommand(app, run);
  AddDecodeCommand(app, run);
  AddInfoCommand(app, run);
  AddPreviewCommand(app, run);
  AddCompareCommand(app, run);
  app.require_subcommand(1);
  app.set_version_flag("--version", Version());
  app.footer(
      "Examples:\n"
      "  kel encode photo.png photo.kel       a photo into a small file\n"
      "  kel decode photo.kel back.png        and back\n"
      "  kel compare photo.png back.png       how far it is from the original\n"
      "  kel info photo.kel                   what is in the file\n"
      "kel COMMAND --help tells the options of a command.\n");
  if (argc < 2) {
    std::cerr << app.help();
    return kUsage;
  }
  if (argv[1][0] != '-' && !HasCommand(app, argv[1])) {
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

}  // namespace
}  // namespace kel::tool

int main(int argc, char** argv) {
  kel::tool::RemoveOutputWhenInterrupted();
  try {
    return kel::tool::RunCommandLine(argc, argv);
  } catch (const std::exception& error) {
    kel::tool::PrintMessage(error.what());
    return kel::tool::kBadInput;
  }
}
