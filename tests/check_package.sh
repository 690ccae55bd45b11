#!/bin/sh
# An outside project finds the installed package, by CMake and by pkg-config alone, and its
# program compiles, links, runs and catches the library's exception.
# Arguments: cmake, compiler, build folder, sanitizers of the build (its programs need them too),
# the version.
set -eu
cmake=$1 compiler=$2 build=$3 sanitizers=$4 version=$5
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
flags=
[ -z "$sanitizers" ] || flags=-fsanitize=$sanitizers

"$cmake" --install "$build" --prefix "$work/prefix" >/dev/null
mkdir "$work/source"
printf '#define VERSION "%s"\n' "$version" >"$work/source/version.h"
cat >"$work/source/main.cpp" <<'CPP'
#include <kel/Kel.h>

#include <cstdlib>
#include <cstring>

#include "version.h"

int main() {
  KelMemFuncs memory;
  memory.AllocBuf = [](KelULong) -> KelBufID_I* { return nullptr; };  // no samples here
  memory.AllocAlignedBuf = [](KelULong, KelULong) -> KelBufID_I* { return nullptr; };
  memory.LockBuf = [](KelBufID_I*) -> void* { return nullptr; };
  memory.UnlockBuf = memory.FreeBuf = [](KelBufID_I*) {};
  memory.Malloc = [](KelULong size) { return std::malloc(size); };
  memory.AlignedMalloc = [](KelULong, KelULong) -> void* { return nullptr; };
  memory.Free = memory.AlignedFree = [](void* address) { std::free(address); };
  memory.MemSet = [](void* to, KelLong value, KelULong count) { std::memset(to, value, count); };
  memory.MemCopy = [](void* to, const void* from, KelULong n) { std::memcpy(to, from, n); };
  if (KelLibInit(&memory) != KelOK) return 4;
  KelEncOpt options;
  try {
    options.InitToDefaults(nullptr);
    return 1;
  } catch (const KelException& failure) {
    if (failure.errCode != KelErrBadParam) return 2;
  }
  options.InitToDefaults(640, 480, 640, 480, 3, 8);
  const bool fine = options.GeomParams->NumXTiles == 1;
  options.Die();
  KelLibShutDown();
  return fine && std::strcmp(KelLibVersion(), VERSION) == 0 ? 0 : 3;
}
CPP
cat >"$work/source/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.22)
project(Outside CXX)
find_package(Kel 1.0 REQUIRED)
add_executable(outside main.cpp)
target_link_libraries(outside PRIVATE Kel::kel)
CMAKE
"$cmake" -S "$work/source" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$flags" >/dev/null
"$cmake" --build "$work/build" >/dev/null
"$work/build/outside"

pc=$(dirname "$(find "$work/prefix" -name kel.pc)")
# shellcheck disable=SC2046
"$compiler" -std=c++17 $flags "$work/source/main.cpp" -o "$work/outside" \
  $(PKG_CONFIG_PATH="$pc" pkg-config --cflags --libs kel)
LD_LIBRARY_PATH=$(dirname "$pc") "$work/outside"
