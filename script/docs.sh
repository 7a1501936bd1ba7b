# shellcheck shell=bash
# Run by script/check docs. Checks that links in the pages lead to a heading or file, that every
# file named exists, that commands are valid shell, and that those in marked blocks work:
#   console run    in a fresh copy of the tree
#   console weir   there, beside weir on its port and a web server on 192.0.2.1:80
#                  that serves www/
. "$(dirname "$0")/lib.sh"
shopt -s extglob
problems=0

complain() {
  echo "$*" >&2
  problems=$((problems + 1))
}

# files [OPTION...] [-- PATTERN...]: of the tree, committed or not.
files() { git ls-files --cached --others --exclude-standard "$@"; }
exists() { [ -n "$(files -- "$@")" ]; }

# anchors PAGE: of its headings, as web pages name them.
anchors() {
  sed -n 's/^##* //p' "$1" | tr '[:upper:]' '[:lower:]' | sed 's/[^a-z0-9 _-]//g; s/ /-/g'
}

check_links() {
  local page=$1 link target
  while read -r link; do
    target=$page
    [[ $link == \#* ]] || target=$(realpath -m --relative-to=. "$(dirname "$page")/${link%%#*}")
    exists "$target" || complain "$page: no file for the link $link"
    [[ $link != *#* ]] || anchors "$target" | grep -qxF -e "${link#*#}" ||
      complain "$page: no heading for the link $link"
  done < <(grep -oP '\]\(\K(?!http)[^)]+' "$page")
}

# A name is a file's if it begins with a folder of the tree, or is in backquotes and has an
# ending that a file of the tree has.
check_names() {
  local page=$1 name folders endings='cpp|h|md|sh|py|js|mjs|html|css|conf|yml|service|timer|txt|cmake|[18]'
  folders=$(files | sed -n 's|/.*||p' | sort -u | paste -sd'|')
  while read -r name; do
    exists "${name%%+(.)}" "*/${name/*\/*/}" || complain "$page: no file $name"
  done < <(grep -oP "(?<![\w./~@-])(?:$folders)/[\w.*/-]*|\`\K[\w-]+\.(?:$endings)(?=[\`#])" "$page")
}

# blocks PAGE [MARK]: the lines of the blocks with that mark, or of all. Typed lines begin
# with "$ ", continued ones included.
blocks() {
  awk -v mark="${2:-}" '
    /^```/ { inside = !inside && /^```console/ && (mark == "" || $0 == "```console " mark); next }
    inside { print (more ? "$ " : "") $0; more = (more || /^\$ /) && /\\$/ }' "$1"
}

commands() { blocks "$@" | sed -n 's/^\$ //p'; }

# run PAGE MARK COMMAND...: runs these blocks by means of that command in a new copy of the
# tree. The other lines of the blocks must be in the output.
run() {
  local page=$1 mark=$2 text dir line
  text=$(commands "$page" "$mark")
  [ -n "$text" ] || return 0
  echo "$page: console $mark"
  dir=$(mktemp -d "$work/XXXX")
  git clone -q . "$dir"
  files -z --deduplicate | xargs -0 cp --parents -t "$dir"
  (cd "$dir" && "${@:3}" bash -euo pipefail -c "$text" >"$work/output" 2>&1) ||
    complain "$page, console $mark: $(tail -n 20 "$work/output")"
  while read -r line; do
    grep -qxF -e "$line" "$work/output" || complain "$page, console $mark: does not print $line"
  done < <(blocks "$page" "$mark" | grep -v '^\$ ')
}

# Three segments of noise.
make_live() {
  mkdir -p www/live
  printf '#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=400000\nhttp://~/live/list.m3u8\n' >www/live/master.m3u8
  printf '#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:1\n' >www/live/list.m3u8
  printf '#EXTINF:2,\nhttp://@/live/%s.ts\n' 1 2 3 >>www/live/list.m3u8
  echo '#EXT-X-ENDLIST' >>www/live/list.m3u8
  head -c 100000 /dev/urandom | tee www/live/{1,2,3}.ts >/dev/null
}

# beside_weir PROGRAM COMMAND...: in a network namespace, since the port is fixed.
beside_weir() {
  ip link set lo up
  ip address add 192.0.2.1/32 dev lo
  make_live
  script/without-reboot "$1" 33554432 >weir.log 2>&1 &
  python3 -m http.server --protocol HTTP/1.1 --bind 192.0.2.1 --directory www 80 >web.log 2>&1 &
  # shellcheck disable=SC2064 # only these processes
  trap "kill $(jobs -p | paste -sd' ')" EXIT
  curl -s --retry 20 --retry-delay 1 --retry-connrefused http://127.0.0.1:7744/stats.json http://192.0.2.1/ >answers
  "${@:2}"
  ! grep -E '^(start_refreshing failed|marking this variant|chunk get .* FAILED)' weir.log
}

if [ "${1:-}" = --beside ]; then
  cd "$OLDPWD" # lib.sh has changed it to the top of the tree
  beside_weir "${@:2}"
  exit
fi

script/build
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
own_network=(unshare --net)
[ "$(id -u)" -eq 0 ] || own_network+=(--map-root-user)
mapfile -t pages < <(files -- '*.md' 'debian/*.[18]')
for page in "${pages[@]}"; do
  check_links "$page"
  check_names "$page"
  commands "$page" | bash -n || complain "$page: invalid shell"
  run "$page" run
  run "$page" weir "${own_network[@]}" bash "$PWD/script/docs.sh" --beside "$PWD/build/release/weir"
done
[ "$problems" -eq 0 ] || die "$problems problems in the pages"
