#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the tracked files twice, in directories and at places in the tree that have nothing in common, and fails unless
# the libraries, the example engine, the bill of materials and the packages are the same to the byte and without a path
# of the machine, and the bill is right.
#   reproducible.sh
set -euo pipefail
cd "$(dirname "$0")/../.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export SOURCE_DATE_EPOCH=1234567890

build() { # SOURCE BUILD
    mkdir -p "$1"
    git ls-files -z | xargs -0 cp --parents -t "$1"
    cmake -S "$1" -B "$2" --preset package -DEKO_BUILD_EXAMPLES=ON
    cmake --build "$2"
    cpack --config "$2/CPackConfig.cmake" -G 'DEB;TGZ' -B "$2/packages"
    mv "$2"/packages/*.{deb,tar.gz} "$2"
}
build "$work/one" "$work/one/b"
build "$work/quite/another" "$work/elsewhere/for/the/build"

for file in "$work"/one/b/{libeko.so,libeko.a,examples/minidb,eko.spdx.json,*.deb,*.tar.gz}; do
    cmp "$file" "$work/elsewhere/for/the/build/${file#"$work"/one/b/}"
    grep -F "$work" "$file" && exit 1
done
archive=("$work"/one/b/*.tar.gz)
{ tar -tzf "${archive[0]}" && tar -xOzf "${archive[0]}"; } | grep -aF "$work" && exit 1
python3 - "$work/one/b/eko.spdx.json" << 'END'
import hashlib, json, sys
bill = json.load(open(sys.argv[1]))
assert bill['creationInfo']['created'] == '2009-02-13T23:31:30Z'
names = [file['fileName'] for file in bill['files']]
assert './include/eko.h' in names and './source/eko/eko.cpp' in names and './LICENSE' in names
for file in bill['files']:
    content = open(file['fileName'], 'rb').read()
    for sum in file['checksums']:
        assert sum['checksumValue'] == hashlib.new(sum['algorithm'], content).hexdigest(), file['fileName']
sums = sorted(file['checksums'][0]['checksumValue'] for file in bill['files'])
code = bill['packages'][0]['packageVerificationCode']['packageVerificationCodeValue']
assert code == hashlib.sha1(''.join(sums).encode()).hexdigest()
ids = [thing['SPDXID'] for thing in [bill] + bill['packages'] + bill['files']]
assert len(ids) == len(set(ids))
related = [(line['spdxElementId'], line['relatedSpdxElement']) for line in bill['relationships']]
assert {id for pair in related for id in pair} == set(ids)
END
