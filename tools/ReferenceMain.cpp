// Writes the manual page, the completion and the table of options into a folder, while building.
#include <iostream>

#include "CommandLine.hpp"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: kel_reference FOLDER\n";
    return 1;
  }
  return kel::tool::WriteReference(argv[1]) ? 0 : 1;
}
