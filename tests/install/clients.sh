#!/usr/bin/env bash
# Installs the library into a scratch prefix and builds and runs clients there, as C and as C++,
# through pkg-config and through the CMake package, and one that only loads it.
#
# usage: clients.sh SOURCE_FOLDER BUILD_FOLDER
set -euo pipefail

source=$1
build=$2
clients=$source/tests/install/consumer
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build" --prefix "$scratch/first"
# The files must work wherever an administrator moves them.
mkdir "$scratch/elsewhere"
mv "$scratch/first" "$scratch/elsewhere/usr"
prefix=$scratch/elsewhere/usr
libdir=$(dirname "$(find "$prefix" -name libeas.so.1)")
[ -L "$libdir/libeas.so" ]

echo "pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
read -ra flags <<<"$(pkg-config --cflags --libs eas)"
[ "$(pkg-config --modversion eas)" = "$(cd "$libdir" && echo libeas.so.*.*.* | sed 's/.*\.so\.//')" ]
strict=(-Wall -Wextra -Wpedantic -Werror "-Wl,-rpath,$libdir")
c++ -std=c++17 "${strict[@]}" "$clients/client.cpp" -o "$scratch/cpp" "${flags[@]}"
cc -std=c11 "${strict[@]}" "$source/examples/scheduler.c" -o "$scratch/c" "${flags[@]}"
"$scratch/c" --help
"$scratch/cpp"
read -ra flags <<<"$(pkg-config --cflags --libs easnode)"
cc -std=c11 "${strict[@]}" "$source/examples/node_meter.c" -o "$scratch/node-c" "${flags[@]}"
c++ -std=c++17 "${strict[@]}" "$clients/node_client.cpp" -o "$scratch/node-cpp" "${flags[@]}"
"$scratch/node-c" -p true
"$scratch/node-cpp"

echo "CMake package"
cmake -S "$clients" -B "$scratch/consumer" -DCMAKE_PREFIX_PATH="$prefix" \
    -DC_CLIENT="$source/examples/scheduler.c" -DNODE_CLIENT="$source/examples/node_meter.c"
cmake --build "$scratch/consumer"
"$scratch/consumer/client-c" --help
"$scratch/consumer/client-cpp"
"$scratch/consumer/node-client-c" -p true
"$scratch/consumer/node-client-cpp"

echo "dlopen"
cc -std=c11 "${strict[@]}" "$clients/loader.c" -o "$scratch/loader"
"$scratch/loader"
