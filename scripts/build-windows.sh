#!/usr/bin/env bash
# Cross-builds sf for 64-bit Windows on Debian 12 into build-win/: bin/sf.dll,
# bin/sfhost.exe, bin/sfber.exe and the unit tests, with the Tcl and C++
# runtime DLLs beside them and Tcl's script library in lib/tcl8.6. Tcl 8.6 and
# GoogleTest are built for Windows from Debian's source packages once and kept
# in build-win/deps/, so a second run only rebuilds sf.
#   usage: scripts/build-windows.sh [--test]
#   --test  also runs the unit tests under Wine (ctest in build-win)
# Run it under `nice` on a shared machine: the first run builds Tcl.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
OUT=$ROOT/build-win
DEPS=$OUT/deps
TOOLCHAIN=$ROOT/cmake/mingw-w64.cmake
jobs=$(nproc)

need=()
for p in g++-mingw-w64-x86-64-posix mingw-w64-tools wine wine64 dpkg-dev googletest \
         cmake ninja-build; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || need+=("$p")
done
if [ ${#need[@]} -gt 0 ]; then
  echo "build-windows: installing ${need[*]}" >&2
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO=sudo
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -q
  $SUDO apt-get install -y -q --no-install-recommends "${need[@]}"
fi

# Wine keeps its own Windows tree; a private one under build-win keeps the
# user's alone and is created once, quietly.
export WINEPREFIX=$OUT/wineprefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="

# Tcl 8.6 from Debian's tcl8.6 source package, with the same compiler, in a
# private apt state so that the system's package lists are left alone.
tcl=$DEPS/tcl
if [ ! -f "$tcl/lib/libtcl86.dll.a" ]; then
  src=$DEPS/tcl-src
  rm -rf "$src" && mkdir -p "$src/lists/partial"
  sed 's/^Types: deb$/Types: deb-src/' /etc/apt/sources.list.d/debian.sources > "$src/src.sources"
  o=(-o Dir::Etc::SourceList=/dev/null -o Dir::Etc::SourceParts="$src" -o Dir::State::Lists="$src/lists")
  apt-get "${o[@]}" update -q
  (cd "$src" && apt-get "${o[@]}" source --download-only tcl8.6 && tar xzf tcl8.6_*.orig.tar.gz)
  (cd "$src"/tcl8.6.*/win &&
   ./configure --host=x86_64-w64-mingw32 --prefix="$tcl" --enable-64bit \
     CC=x86_64-w64-mingw32-gcc-posix >/dev/null &&
   make -j"$jobs" >/dev/null && make install >/dev/null)
  rm -rf "$src"
fi

# GoogleTest from the googletest source package (/usr/src/googletest).
gtest=$DEPS/gtest
if [ ! -f "$gtest/lib/cmake/GTest/GTestConfig.cmake" ]; then
  cmake -S /usr/src/googletest -B "$DEPS/gtest-build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX="$gtest" -DBUILD_GMOCK=OFF -Dgtest_disable_pthreads=OFF >/dev/null
  cmake --build "$DEPS/gtest-build" -j "$jobs" >/dev/null
  cmake --install "$DEPS/gtest-build" >/dev/null
  rm -rf "$DEPS/gtest-build"
fi

launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
cmake -S . -B "$OUT" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" "${launcher[@]}" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSF_TESTS=ON -DSF_BENCH=OFF \
  "-DSF_WIN_DEPS=$tcl;$gtest" -DGTest_DIR="$gtest/lib/cmake/GTest" \
  -DTCL_INCLUDE_PATH="$tcl/include" -DTCL_LIBRARY="$tcl/lib/libtcl86.dll.a" >/dev/null
cmake --build "$OUT" -j "$jobs"

if [ "${1:-}" = --test ]; then
  # The first Wine process makes a new prefix and starts wineserver; two
  # tests doing that at once race, so make it here, once, and wait for it.
  wineboot -i >/dev/null 2>&1 || true
  wineserver -w
  ctest --test-dir "$OUT" -j "$jobs" --output-on-failure --timeout 300
fi
