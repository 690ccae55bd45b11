// The `kel` command: reads the command line and runs one of its subcommands.
#include <kel/host/errors.hpp>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>

#include "CommandLine.hpp"
#include "Console.hpp"
#include "Files.hpp"
#include "OutputFile.hpp"

namespace kel::tool {
namespace {

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
  CLI::App app;
  Run run;
  DeclareCommandLine(app, run);
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
#if defined(__GLIBC__)
  mallopt(M_MMAP_THRESHOLD, 32 << 20);  // blocks come again: keep their pages
  mallopt(M_TRIM_THRESHOLD, 64 << 20);
#endif
  kel::tool::RemoveOutputWhenInterrupted();
  try {
    return kel::tool::RunCommandLine(argc, argv);
  } catch (const std::exception& error) {
    kel::tool::PrintMessage(error.what());
    return kel::tool::kBadInput;
  }
}
