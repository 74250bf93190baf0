#!/usr/bin/env bash
# Installs the build into a temporary prefix, builds a small program against
# it through the CMake package and through pkg-config (public headers, the
# exported link interface and the shared library, no Tcl of its own) and
# runs it; then starts the installed sfhost on its installed site.
set -euo pipefail
build=$(realpath "${SF_BUILD_DIR:?}")
tmp=$(mktemp -d /tmp/sf-consumer-XXXXXX)
shm=/dev/shm/estat${tmp//\//_}_prefix
trap 'rm -rf "$tmp" "${shm}_shm" "${shm}_mx"' EXIT
prefix=$tmp/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(dirname "$(find "$prefix" -name sf.pc)")")

# Internal headers and Tcl's stay out of the installed ones; that these include
# only each other the program below shows, its <sf/sflib.h> reaching them all.
test ! -e "$prefix/include/sf/platform" -a ! -e "$prefix/include/sf/net/net.h"
! grep -rqE '#\s*include\s*<tcl\.h>' "$prefix/include"

cat >"$tmp/main.cpp" <<'CPP'
#include <sf/sflib.h>

#include <cstdio>

static void show(std::uint32_t, std::uint32_t, std::uint32_t level, const char*, std::uint32_t,
                 std::uint32_t, const char* msg, int, const char*, int) {
  if (level == 1) std::printf("%s\n", msg);
}

int main() {
  sf::setlog(show);
  sf::g_logLevel.store(1);
  sf::Buffer b;
  b.append("hello");
  b.insert(5, ", consumer");
  try {
    b.getROPtr(99);
  } catch (const sf::Xbounds& x) {
    SF_LOG(1, "%.*s %s", static_cast<int>(b.size()), b.data, x.str().c_str());
  }
}
CPP
# A sanitizer build installs an instrumented library: build the same way.
flags=$(sed -n 's/^SF_SANITIZE:[A-Z]*=\(..*\)$/-fsanitize=\1/p' "$build/CMakeCache.txt")
export PKG_CONFIG_PATH=$libdir/pkgconfig
test -z "$(pkg-config --libs sf | grep tcl)"
for use in "find_package(sf CONFIG REQUIRED)|sf::sf" \
           "find_package(PkgConfig REQUIRED)\npkg_check_modules(SF REQUIRED IMPORTED_TARGET sf)|PkgConfig::SF"; do
  src=$tmp/consumer-${use#*|}
  src=${src//:/_}
  mkdir -p "$src"
  cp "$tmp/main.cpp" "$src/"
  printf 'cmake_minimum_required(VERSION 3.18)\nproject(consumer CXX)\nset(CMAKE_CXX_STANDARD 17)\n%b\nadd_executable(consumer main.cpp)\ntarget_link_libraries(consumer PRIVATE %s)\n' \
    "${use%|*}" "${use#*|}" >"$src/CMakeLists.txt"
  cmake -S "$src" -B "$src/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="$flags" >/dev/null
  cmake --build "$src/build" >/dev/null
  out=$(LD_LIBRARY_PATH=$libdir "$src/build/consumer")
  test "$out" = "hello, consumer 2-2 range=15; index=99" || { echo "consumer said: $out"; exit 1; }
done

# The installed sfhost finds its site without options: the root two levels
# above the program, the data directory the current one.
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
(cd "$tmp" && exec env -u SFROOTDIR -u SFDATDIR TAVODATDIR="$prefix" SF_HTTP_PORT="$port" \
  "$prefix/bin/sfhost" -l 2>"$tmp/sfhost.err") &
started="started: root $prefix, data $tmp\$"
for _ in $(seq 600); do grep -q "$started" "$tmp/sfhost.err" && break; sleep 0.1; done
kill -TERM $!
wait $! || { echo "sfhost exited with $?"; cat "$tmp/sfhost.err"; exit 1; }
grep -q "$started" "$tmp/sfhost.err" || { cat "$tmp/sfhost.err"; exit 1; }
