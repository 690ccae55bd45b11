#!/bin/sh
# Programs outside use Kel in each way that docs/host-kit.md names, beside what the tests of the
# installed packages try: found by CMake with components, static, by pkg-config, and as a part of
# another project by FetchContent, there with clang's own standard library and with nothing forced
# on the project. Arguments: a build folder with KEL_BUILD_STATIC that can be installed from, a
# folder to work in.
set -eu
build=$1 work=$2
source=$(cd "$(dirname "$0")/.." && pwd)
rm -rf "$work"
mkdir -p "$work/found" "$work/fetched"
work=$(cd "$work" && pwd)
prefix=$work/prefix
for part in runtime development; do
  cmake --install "$build" --prefix "$prefix" --component $part >/dev/null
done
{ printf 'P6 300 200 255\n'; head -c 180000 "$source/examples/images/coffee.png"; } >"$work/photo.ppm"

try() {  # encoder, decoder: a photo goes there and back, with loss
  "$1" "$work/photo.ppm" "$work/photo.kel" && "$2" "$work/photo.kel" "$work/back.ppm"
  [ "$(wc -c <"$work/back.ppm")" -gt 180000 ]
  rm "$work/photo.kel" "$work/back.ppm"
}

cat >"$work/found/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.22)
project(Found C CXX)
find_package(Kel 1.0 REQUIRED COMPONENTS host host_static c)
foreach(kit host host_static)
  foreach(program encode_file decode_file)
    add_executable(\${program}_\${kit} $source/examples/\${program}.cpp)
    target_link_libraries(\${program}_\${kit} PRIVATE Kel::\${kit})
  endforeach()
endforeach()
add_executable(kelc $source/examples/kelc.c)
target_link_libraries(kelc PRIVATE Kel::c)
find_package(Kel QUIET COMPONENTS unheard_of)
if(Kel_FOUND)
  message(FATAL_ERROR "a component that does not exist was found")
endif()
CMAKE
cmake -S "$work/found" -B "$work/found/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/found/build" >/dev/null
try "$work/found/build/encode_file_host" "$work/found/build/decode_file_host"
try "$work/found/build/encode_file_host_static" "$work/found/build/decode_file_host_static"
if ldd "$work/found/build/encode_file_host_static" | grep -q libkel; then
  echo "the static kit needs the shared library" >&2
  exit 1
fi

# By pkg-config, shared and from archives alone; headers of the library serve C++17, the kit's say
# in one sentence that they do not.
libraries=$(dirname "$(find "$prefix" -name libkel.so)")
export PKG_CONFIG_PATH="$libraries/pkgconfig"
mkdir "$work/archives"
cp "$libraries"/libkel*.a "$work/archives"
for program in encode_file decode_file; do
  # shellcheck disable=SC2046
  g++ -std=c++20 "$source/examples/$program.cpp" -o "$work/$program" \
    $(pkg-config --cflags --libs kel-host) -Wl,-rpath,"$libraries"
  # shellcheck disable=SC2046
  g++ -std=c++20 "$source/examples/$program.cpp" -o "$work/$program-static" -L"$work/archives" \
    $(pkg-config --cflags kel-host) \
    $(pkg-config --static --libs-only-l kel-host) -pthread
done
try "$work/encode_file" "$work/decode_file"
try "$work/encode_file-static" "$work/decode_file-static"
for compiler in g++ clang++; do
  for header in "$prefix"/include/kel/host.hpp "$prefix"/include/kel/host/*.hpp; do
    said=$(LC_ALL=C $compiler -std=c++17 -fsyntax-only -x c++ "$header" 2>&1 | grep -c error: || true)
    case $header:$said in
      *:1) ;;
      *) echo "$header as C++17, by $compiler: $said errors instead of one" >&2; exit 1 ;;
    esac
  done
done

cat >"$work/fetched/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.22)
project(Fetched CXX)
include(FetchContent)
FetchContent_Declare(Kel SOURCE_DIR $source)
FetchContent_MakeAvailable(Kel)
foreach(program encode_file decode_file)
  add_executable(\${program} $source/examples/\${program}.cpp)
  target_link_libraries(\${program} PRIVATE Kel::host)
endforeach()
get_property(tests DIRECTORY "$source" PROPERTY TESTS)
if(CMAKE_BUILD_TYPE OR CMAKE_CXX_STANDARD OR CMAKE_CXX_VISIBILITY_PRESET OR tests OR TARGET kel_tool)
  message(FATAL_ERROR "a project that fetches Kel gets more than its targets")
endif()
CMAKE
cmake -S "$work/fetched" -B "$work/fetched/build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_CXX_FLAGS=-stdlib=libc++ -DKEL_WARNINGS_AS_ERRORS=ON >/dev/null
cmake --build "$work/fetched/build" >/dev/null
try "$work/fetched/build/encode_file" "$work/fetched/build/decode_file"
cmake --install "$work/fetched/build" --prefix "$work/nothing" >/dev/null
if [ -e "$work/nothing" ]; then
  echo "a project that fetches Kel installs it" >&2
  exit 1
fi
