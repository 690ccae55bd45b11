#!/bin/sh
# Every public header compiles alone, as C++17 and as C++20. Arguments: compiler, include folder.
set -eu
for header in "$2"/kel/*.h; do
  for standard in c++17 c++20; do
    echo "#include <kel/$(basename "$header")>" |
      "$1" -std=$standard -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$2" -x c++ -
  done
done
