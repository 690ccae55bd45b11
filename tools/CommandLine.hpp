// The command line of `kel` as one table: subcommands, options, their values and descriptions.
// From it come the parsing, --help, the manual page, the completion and the list for programs.
//
// The first line of an option's description is what --help shows; the rest is for the manual.
#ifndef KEL_TOOLS_COMMAND_LINE_HPP
#define KEL_TOOLS_COMMAND_LINE_HPP

#include <CLI/CLI.hpp>
#include <iosfwd>

#include "Commands.hpp"

namespace kel::tool {

/// Declares everything; `run` becomes the function of the chosen subcommand.
void DeclareCommandLine(CLI::App& app, Run& run);

/// The manual page, in the man macros of roff.
void WriteManual(const CLI::App& app, std::ostream& out);
/// The completion for bash.
void WriteCompletion(const CLI::App& app, std::ostream& out);
/// Commands and options as JSON.
void WriteOptionTable(const CLI::App& app, std::ostream& out);

}  // namespace kel::tool

#endif
