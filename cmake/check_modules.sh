#!/usr/bin/env bash
# check_modules.sh BUILD_FOLDER: checks that the table of modules is enforced. With the
# command line of a source of the module `buffer`, the compiler must find the headers of
# declared modules and no others.
set -euo pipefail

cd "$1"  # contains nothing that a relative include could find
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
