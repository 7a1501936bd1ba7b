# shellcheck shell=bash
# Sourced by script/demo: the film, as an origin offers it. Segment n of each of
# its variants holds the same two seconds, so no frame is missed in a switch.

readonly film_seconds=60 film_fps=25 segment_seconds=2
readonly variants=(180p 270p 360p)

# make_film DIR: DIR becomes the document root of the origin.
make_film() {
  local dir=$1/film variant largest
  mkdir -p "${variants[@]/#/$dir/}"
  head -c 16 /dev/urandom >"$dir/film.key"
  # The key's address, the key's file, and the initialisation vector: always zero.
  printf '%s\n' http://@/film/film.key "$dir/film.key" 00000000000000000000000000000000 >"$1/key_info"
  encode "$dir" "$1/key_info" &
  wait $! || die "ffmpeg could not make the film"
  echo "#EXTM3U" >"$dir/master.m3u8"
  for variant in "${variants[@]}"; do
    # weir wants the address last among the attributes of the key.
    sed -i 's/^\(#EXT-X-KEY:.*\),\(URI="[^"]*"\),\(.*\)$/\1,\3,\2/' "$dir/$variant/list.m3u8"
    largest=$(stat -c %s "$dir/$variant"/*.ts | sort -n | tail -n 1)
    echo "#EXT-X-STREAM-INF:BANDWIDTH=$((largest * 8 / segment_seconds))"
    echo "http://~/film/$variant/list.m3u8"
  done >>"$dir/master.m3u8"
}

# encode DIR KEY_INFO
encode() {
  # shellcheck disable=SC2046 # what output_of prints has no blanks to keep
  exec ffmpeg -nostdin -v error \
    -f lavfi -i "testsrc2=size=640x360:rate=$film_fps:duration=$film_seconds" \
    -f lavfi -i "sine=frequency=440:duration=$film_seconds" \
    -filter_complex '[0:v]split=3[v360p][b][c];[b]scale=480:270[v270p];[c]scale=320:180[v180p]' \
    $(output_of 180p 250k "$@") $(output_of 270p 600k "$@") $(output_of 360p 1200k "$@")
}

# output_of VARIANT BITRATE DIR KEY_INFO: each segment begins with a key frame;
# they are numbered from 1 because weir never fetches number 0.
output_of() {
  local dir=$3/$1 gop=$((film_fps * segment_seconds))
  echo -map "[v$1]" -map 1:a -c:v libx264 -preset ultrafast -b:v "$2" -maxrate "$2" -bufsize "$2"
  echo -g "$gop" -keyint_min "$gop" -sc_threshold 0 -c:a aac -b:a 64k
  echo -f hls -hls_time "$segment_seconds" -hls_playlist_type vod -start_number 1
  echo -hls_key_info_file "$4" -hls_base_url "http://@/film/$1/"
  echo -hls_segment_filename "$dir/%03d.ts" "$dir/list.m3u8"
}
