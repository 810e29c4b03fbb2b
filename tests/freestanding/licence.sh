#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-only
# Every source file and script says in its first two lines under which licence it stands, and all of them name the one
# whose text LICENSE has and whose name the packages give.
set -euo pipefail

top=$(cd "$(dirname "$0")/../.." && pwd)
cd "$top"
status=0
wrong() {
  echo "$*"
  status=1
}

# Texts to be read, inputs of the fuzzers, and JSON, which knows no comments, have no such line.
sources() {
  git ls-files --cached --others --exclude-standard 2>/dev/null ||
    find . \( -path ./build -o -name 'build-*' -o -name __pycache__ \) -prune -o -type f -printf '%P\n'
}
mapfile -t files < <(sources | grep -vE '\.(md|json)$|^(LICENSE|packaging/copyright)$|^tests/fuzz/corpus/' | LC_ALL=C sort)
[ ${#files[@]} -gt 300 ] || wrong "only ${#files[@]} files were found"
for file in "${files[@]}"; do
  head -2 "$file" | grep -q 'SPDX-License-Identifier: GPL-2\.0-only' || wrong "$file names no licence, or another one"
done
head -2 LICENSE | tr -s ' \n' ' ' | grep -q 'GNU GENERAL PUBLIC LICENSE Version 2, June 1991' || wrong "LICENSE has another text"
grep -qx 'License: GPL-2.0-only' packaging/copyright || wrong "packaging/copyright names another licence"
exit $status
