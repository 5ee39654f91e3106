#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs a build and has programs use it as their authors would, from where it was moved to. Then builds others with
# the tree inside of theirs. CMake takes compilers and flags from the environment.
#   CC=... CXX=... CFLAGS=... consumers.sh SOURCE_DIR BUILD_DIR LIBDIR
set -euo pipefail
source=$1 build=$2 libdir=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

quietly() { "$@" > log 2>&1 || { printf 'Failed: %s\n' "$*" && tail -n 50 log && exit 1; }; }
expect() { # TEXT COMMAND...
    diff <(printf '%s\n' "$1") <("${@:2}") || { printf 'from %s\n' "${*:2}" && exit 1; }
}
needs() { readelf -d "$1" | grep NEEDED; }
make() { # DIRECTORY [OPTION...]
    quietly cmake -G Ninja -S "$source/tests/consumers/$1" -B "b/$1" "${@:2}"
    quietly cmake --build "b/$1"
}

DESTDIR=stage quietly cmake --install "$build" --prefix /opt/eko
mv stage/opt/eko moved
export PKG_CONFIG_PATH=$work/moved/$libdir/pkgconfig CMAKE_PREFIX_PATH=$work/moved

# The README's program by the README's command, and with the static library.
block() { awk -v open="\`\`\`$1" '$0 == open { inside = 1; next } inside && /^```$/ { exit } inside' "$source/README.md"; }
block c > hello.c
command=$(grep -om 1 "cc hello\.c .*pkg-config[^\`]*" "$source/README.md")
read -ra flags <<< "$CFLAGS"
cc() { "$CC" "${flags[@]}" -std=c11 -Wall -Wextra -Wpedantic -Werror "$@"; }
eval "$command"
expect "$(block text)" env "LD_LIBRARY_PATH=moved/$libdir" ./hello
needs hello | grep -q libeko.so.12
read -ra static <<< "$(pkg-config --static --cflags --libs eko)"
cc hello.c -o hello -static "${static[@]}"
expect "$(block text)" ./hello

# Through find_package.
make c
expect 20 b/c/sum
needs b/c/sum | grep -E 'libeko|libstdc' && exit 1
grep -q '^build sum: C_EXECUTABLE_LINKER' b/c/build.ninja # some compilers' c++ would have libstdc++ needed
make cxx
for program in throws_{eko,static}{,_lto}; do
    expect 'thrown and caught' "b/cxx/$program"
done

# With the tree inside.
make tree -DFETCH=ON "-DEKO_TREE=$source"
expect 'thrown and caught' b/tree/throws_eko
rm -r b/tree
CFLAGS="$CFLAGS -O2 -flto" CXXFLAGS="$CXXFLAGS -O2 -flto" make tree "-DEKO_TREE=$source"
expect 'thrown and caught' b/tree/throws_eko
expect 'thrown and caught' b/tree/throws_static

# Removed, it leaves what was there before and nothing else: where it was moved to; component by component, in company;
# and after an older version, whose tree has a header more. That one's libraries are this one's.
cmake -P moved/share/eko/uninstall.cmake > log
[ ! -e moved ] || { find moved && exit 1; }
mkdir -p shared/lib/pkgconfig shared/share/doc
touch shared/lib/pkgconfig/other.pc
find shared > before
for component in runtime development; do
    quietly cmake --install "$build" --prefix shared --component $component
done
[ -e shared/include/eko/eko.h ]
quietly cmake --build "$build" --target uninstall
diff before <(find shared)

mkdir old b/old
cp -r "$source"/{CMakeLists.txt,LICENSE,cmake,include,source,tools} old
version=$(sed -n 's/^project(eko VERSION \([0-9.]*\).*/\1/p' old/CMakeLists.txt)
sed -i 's/^project(eko VERSION [0-9.]*/project(eko VERSION 12.0.1/' old/CMakeLists.txt
touch old/include/eko/withdrawn.h
quietly cmake -G Ninja -S old -B b/old -DEKO_BUILD_EXAMPLES=OFF
quietly cmake --build b/old --target eko_sbom
cp "$build"/{libeko.a,*.json} b/old # what else is built to be installed
cp "$build/libeko.so.$version" b/old/libeko.so.12.0.1
ln -s libeko.so.12.0.1 b/old/libeko.so.12
ln -s libeko.so.12 b/old/libeko.so
prefix=$work/deep/down\ there
quietly cmake --install b/old --prefix "$prefix"
[ -e "$prefix/include/eko/eko/withdrawn.h" ]
quietly cmake --install "$build" --prefix "$prefix"
find deep | grep -E 'withdrawn|12\.0\.1$' && exit 1
gdb -nx -batch -iex "set auto-load scripts-directory $prefix/share/gdb/auto-load" -iex "set auto-load safe-path $prefix" \
    -ex 'help eko trace' "$prefix/$libdir/libeko.so" > log 2>&1 || { cat log && exit 1; }
quietly cmake --build "$build" --target uninstall
[ ! -e deep ] || { find deep && exit 1; }
