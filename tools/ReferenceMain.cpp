// Writes the manual page, the completion and the table of options into a folder, while building.
#include <fstream>
#include <iostream>

#include "CommandLine.hpp"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: kel_reference FOLDER\n";
    return 1;
  }
  CLI::App app;
  kel::tool::Run run;
  kel::tool::DeclareCommandLine(app, run);
  const std::string folder = std::string(argv[1]) + "/";
  std::ofstream manual(folder + "kel.1"), completion(folder + "kel.bash");
  std::ofstream table(folder + "kel-options.json");
  kel::tool::WriteManual(app, manual);
  kel::tool::WriteCompletion(app, completion);
  kel::tool::WriteOptionTable(app, table);
  return manual.good() && completion.good() && table.good() ? 0 : 1;
}
