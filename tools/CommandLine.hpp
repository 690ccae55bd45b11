// The command line of `kel` as one table: subcommands, options, their values and descriptions.
// From it come the parsing, --help, the manual page, the completion and the list for programs.
//
// The first line of an option's description is what --help shows; the rest is for the manual.
#ifndef KEL_TOOLS_COMMAND_LINE_HPP
#define KEL_TOOLS_COMMAND_LINE_HPP

#include <string>
#include <string_view>

#include "Commands.hpp"

namespace kel::tool {

/// Declares everything, or only one subcommand; `run` becomes the function of the chosen one.
void DeclareCommandLine(CLI::App& app, Run& run, std::string_view only = {});

/// What the program does: reads the command line and runs the subcommand that it names.
/// Returns the code for the process to end with.
int RunCommandLine(int argc, char** argv);

/// The table, written into a folder: the manual page `kel.1` in the man macros of roff, the
/// completion for bash `kel.bash`, and commands and options as JSON, `kel-options.json`.
/// Returns whether all could be written.
bool WriteReference(const std::string& folder);

}  // namespace kel::tool

#endif
