#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Fails when a tracked file does not name its licence within its first two lines. The licence's text does not, nor can
# JSON, which has no comments.
set -euo pipefail
cd "$(dirname "$0")/../.."

tag='SPDX-License''-Identifier: MIT'
status=0 count=0
while IFS= read -r -d '' file; do
    case $file in LICENSE | *.json) continue ;; esac
    count=$((count + 1))
    if ! grep -qF "$tag" < <(head -n 2 "$file"); then
        echo "$file does not say '$tag' at its top"
        status=1
    fi
done < <(git ls-files -z)
[ $count -gt 0 ] || status=1
exit $status
