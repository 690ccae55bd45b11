#!/bin/sh
# Every header of the host kit compiles alone, and an outside project finds the installed kit by
# CMake, links it and runs. Arguments: cmake, compiler, build folder, sanitizers of the build.
set -eu
cmake=$1 compiler=$2 build=$3 sanitizers=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
flags=
[ -z "$sanitizers" ] || flags=-fsanitize=$sanitizers

"$cmake" --install "$build" --prefix "$work/prefix" >/dev/null
for header in "$work"/prefix/include/kel/host.hpp "$work"/prefix/include/kel/host/*.hpp; do
  echo "#include <${header#"$work"/prefix/include/}>" |
    "$compiler" -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only \
      -I"$work/prefix/include" -x c++ -
done
mkdir "$work/source"
cat >"$work/source/main.cpp" <<'CPP'
#include <kel/host.hpp>

int main() {
  using namespace kel::host;
  const Session session;
  Image image = MakeImage(2, 1, 1, 8);
  image.planes[0].Set(1, 0, 'x');
  MemorySink sink;
  WritePnm(image, sink);
  try {
    MemorySource source(ByteView(sink.bytes).first(5));
    ReadPnm(source);
    return 1;
  } catch (const Error& error) {
    return error.Kind() == Failure::kInput && sink.bytes.back() == 'x' ? 0 : 2;
  }
}
CPP
cat >"$work/source/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(Outside CXX)
find_package(Kel 1.0 REQUIRED)
add_executable(outside main.cpp)
target_link_libraries(outside PRIVATE Kel::host)
CMAKE
"$cmake" -S "$work/source" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
"$cmake" --build "$work/build" >/dev/null
"$work/build/outside"
