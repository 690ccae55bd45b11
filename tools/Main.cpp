// The `kel` command: reads the command line and runs one of its subcommands.
#include <exception>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include "CommandLine.hpp"
#include "Console.hpp"
#include "Files.hpp"
#include "OutputFile.hpp"

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
