#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-only
# Who may include whom: the arrows between the folders. Prints each wrong one; fails when there is any.
set -euo pipefail

top=$(cd "$(dirname "$0")/../.." && pwd)
cd "$top"
failed=0

# includes FOLDER... : "file<TAB>included name" for every include in the folders
includes() {
  find "$@" \( -name '*.h' -o -name '*.cpp' -o -name '*.c' \) -print0 |
    xargs -0 -r grep -HnE '^[[:space:]]*#[[:space:]]*include' |
    sed -E 's/^([^:]+):[0-9]+:[[:space:]]*#[[:space:]]*include[[:space:]]*[<"]?([^>"]*)[>"]?.*/\1\t\2/'
}

wrong() {
  echo "$1 includes $2: $3" >&2
  failed=1
}

own=$(find quendrel/2.6 -name '*.h' -printf '%f\n')
while IFS=$'\t' read -r file name; do
  grep -qxF "$(basename "$name")" <<<"$own" || [ "$name" = kernel.h ] ||
    wrong "$file" "$name" "the core reaches its platform through kernel.h only"
done < <(includes quendrel/2.6)

while IFS=$'\t' read -r file name; do
  if grep -qxF "$(basename "$name")" <<<"$own"; then
    wrong "$file" "$name" "the hosted kernel never includes the core's headers"
  fi
done < <(includes platform/hosted)

for folder in client tools; do
  while IFS=$'\t' read -r file name; do
    case $name in
    quendrel.h) ;;
    kernel.h | kernel_platform.h | hosted.h) wrong "$file" "$name" "$folder knows nothing of the kernel below the driver" ;;
    *)
      if grep -qxF "$(basename "$name")" <<<"$own" && [ ! -e "$(dirname "$file")/$name" ] && [ ! -e "client/$name" ]; then
        wrong "$file" "$name" "$folder shares nothing with the core but quendrel.h"
      fi
      ;;
    esac
  done < <(includes $folder)
done

while IFS=$'\t' read -r file name; do
  case $name in
  qdrlib.h | qdr-2.6.h | globals.h | guards.h | stats.h | queueList.h) wrong "$file" "$name" "the daemon uses the driver through the hosted kernel" ;;
  esac
done < <(includes server)

while IFS=$'\t' read -r file name; do
  case $name in
  base/*) ;;
  *.h | *.hpp)
    if [ -n "$(find . -path ./build -prune -o -path "*/$name" -print -quit)" ]; then
      wrong "$file" "$name" "everybody uses base, which uses nobody"
    fi
    ;;
  esac
done < <(includes base)

[ $failed = 0 ] && echo "every include follows the plan"
exit $failed
