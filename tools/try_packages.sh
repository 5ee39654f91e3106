#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs Debian packages of eko where eko never was: in a Debian 12 with a C compiler, which is made by debootstrap
# from where this machine's apt has its packages, and kept as an archive for the next time. There the README's program is
# compiled by the README's command. An older version is replaced, and what is installed removed, without a trace.
#   try_packages.sh README DIRECTORY PACKAGE...      as root; the archive is kept in DIRECTORY
set -euo pipefail
readme=$1 directory=$2
shift 2
[ "$(id -u)" -eq 0 ] || { echo "a clean Debian is made with debootstrap and chroot, by root: sudo ./dev package --try" && exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
clean=$work/debian
export LC_ALL=C DEBIAN_FRONTEND=noninteractive

say() { printf '== %s\n' "$*"; }
inside() { chroot "$clean" "$@"; }
fail() { say "FAILED: $*" && exit 1; }
block() { awk -v open="\`\`\`$1" '$0 == open { inside = 1; next } inside && /^```$/ { exit } inside' "$readme"; }
# All that is there, less what dpkg and apt write about themselves.
files() {
    (cd "$clean" && find . -path ./proc -prune -o -path ./tmp -prune -o -print) |
        grep -vE '^\./var/(log|cache|lib/apt|lib/dpkg/[^/]*(-old|lock.*)?$|lib/dpkg/triggers)' | sort
}

architecture=$(dpkg-deb -f "$1" Architecture)
cache=$directory/debian12-$architecture.tar
if [ ! -e "$cache" ]; then
    say "Making a minimal Debian 12 for $architecture"
    # shellcheck disable=SC2016 # the names are apt's
    mirror=$(apt-get indextargets --format '$(REPO_URI) $(CODENAME) $(COMPONENT)' | sed -n 's/ bookworm main$//p' | head -n 1)
    [ -n "$mirror" ] || fail "this machine's apt knows no Debian 12"
    debootstrap "--arch=$architecture" --variant=minbase --include=gcc,libc6-dev,pkg-config bookworm "$clean" "$mirror"
    tar -C "$clean" -cf "$cache.part" .
    mv "$cache.part" "$cache"
else
    say "Unpacking $cache"
    mkdir "$clean"
    tar -C "$clean" -xpf "$cache"
fi
mkdir "$clean/tmp/new" "$clean/tmp/old"
cp "$@" "$clean/tmp/new"
files > "$work/before"

# The older version: the same, called 12.0.1, with a header that has gone since.
for package in "$@"; do
    older=$work/older
    rm -rf "$older"
    dpkg-deb -R "$package" "$older"
    version=$(dpkg-deb -f "$package" Version)
    sed -i "s/${version//./\\.}/12.0.1-1/" "$older/DEBIAN/control"
    while read -r path; do
        mv "$path" "${path//${version%-*}/12.0.1}"
    done < <(find "$older" -name "*${version%-*}*")
    for link in "$older"/usr/lib/*/libeko.so.12; do
        [ ! -L "$link" ] || ln -sf libeko.so.12.0.1 "$link"
    done
    [ ! -d "$older/usr/include/eko" ] || touch "$older/usr/include/eko/withdrawn.h"
    dpkg-deb --root-owner-group -b "$older" "$clean/tmp/old" > /dev/null
done

try() {
    block c > "$clean/tmp/hello.c"
    inside sh -c "cd /tmp && $(grep -om 1 'cc hello\.c .*pkg-config[^`]*' "$readme") && ./hello" > "$work/said"
    block text | diff - "$work/said" || fail "the README's program says something else"
    inside sh -c 'ldd /tmp/hello' | grep -F "libeko.so.12 => /"
}
for version in old new; do
    say "Installing the $version version, and compiling the README's program"
    inside sh -c "apt-get install -y --no-install-recommends /tmp/$version/*.deb"
    try
    inside dpkg-query -W 'libeko*'
done
files | grep -E 'withdrawn|12\.0\.1\b' && fail "the older version left files behind"
inside sh -c 'zgrep -c . /usr/share/man/man3/eko_fileLock.3.gz /usr/share/doc/libeko-dev/html/index.html' ||
    fail "there is no manual"

say "Removing both"
inside apt-get purge -y libeko-dev libeko12
files | diff "$work/before" - || fail "files stayed behind"
inside ldconfig -p | grep libeko && fail "the linker's cache still knows libeko"
say "Nothing stayed behind"
