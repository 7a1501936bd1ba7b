#!/usr/bin/env bash
# Checks that the table of modules is enforced: with the compiler's own command line
# for a source of the module `buffer`, a header that the module has declared is
# found, and one that it has not declared is not. Takes the build folder.
set -euo pipefail

cd "$1"  # holds nothing that a relative include could find
command=$(sed -n 's/.*"command": "\(.*\) -o .*buffer\/cbuff.cpp.*/\1/p' compile_commands.json)
[ -n "$command" ] || { echo "no command line for buffer/cbuff.cpp"; exit 1; }

finds() {
  # shellcheck disable=SC2086
  echo "#include \"$1\"" | $command -fsyntax-only -x c++ - 2>/dev/null
}

for header in buffer/cbuff.h base/log.h; do
  finds "$header" || { echo "buffer does not see $header"; exit 1; }
done
for header in upstream/ucurl.h server/server.h playlist/stream_stats.h cachemap/cache_map.h; do
  if finds "$header"; then
    echo "buffer sees $header"
    exit 1
  fi
done
