# Sourced by script/demo: the film, as an origin offers it.
#
# Three variants of one picture. Segment n of any variant holds the same two
# seconds, so a player that follows weir through a switch misses no frame.

readonly film_seconds=60 film_fps=25 segment_seconds=2
readonly variants=(180p 270p 360p)

# make_film DIR: DIR becomes the document root of the origin.
make_film() {
  local dir=$1/film variant
  mkdir -p "${variants[@]/#/$dir/}"
  head -c 16 /dev/urandom >"$dir/film.key"
  # The key's address, the key's file, and the initialisation vector: always zero.
  printf '%s\n' http://@/film/film.key "$dir/film.key" 00000000000000000000000000000000 >"$1/key_info"
  encode "$dir" "$1/key_info" &
  wait $! || die "ffmpeg could not make the film"
  for variant in "${variants[@]}"; do
    # weir wants the address last among the attributes of the key.
    sed -i 's/^\(#EXT-X-KEY:.*\),\(URI="[^"]*"\),\(.*\)$/\1,\3,\2/' "$dir/$variant/list.m3u8"
  done
  master_playlist "$dir" >"$dir/master.m3u8"
}

# encode DIR KEY_INFO
encode() {
  local source=size=640x360:rate=$film_fps:duration=$film_seconds
  # shellcheck disable=SC2046 # output_of prints options without blanks in them
  exec ffmpeg -nostdin -v error \
    -f lavfi -i "testsrc2=$source" -f lavfi -i "sine=frequency=440:duration=$film_seconds" \
    -filter_complex '[0:v]split=3[v360p][b][c];[b]scale=480:270[v270p];[c]scale=320:180[v180p]' \
    $(output_of 180p 250k "$@") $(output_of 270p 600k "$@") $(output_of 360p 1200k "$@")
}

# output_of VARIANT BITRATE DIR KEY_INFO: segments that all start with a key
# frame, numbered from 1 because weir never fetches number 0.
output_of() {
  local variant=$1 bitrate=$2 dir=$3/$1 key_info=$4 gop=$((film_fps * segment_seconds))
  echo -map "[v$variant]" -map 1:a -c:a aac -b:a 64k
  echo -c:v libx264 -preset ultrafast -b:v "$bitrate" -maxrate "$bitrate" -bufsize "$bitrate"
  echo -g "$gop" -keyint_min "$gop" -sc_threshold 0
  echo -f hls -hls_time "$segment_seconds" -hls_playlist_type vod -start_number 1
  echo -hls_key_info_file "$key_info" -hls_base_url "http://@/film/$variant/"
  echo -hls_segment_filename "$dir/%03d.ts" "$dir/list.m3u8"
}

# master_playlist DIR: the bandwidth of a variant is that of its largest segment.
master_playlist() {
  local variant largest
  echo "#EXTM3U"
  for variant in "${variants[@]}"; do
    largest=$(stat -c %s "$1/$variant"/*.ts | sort -n | tail -n 1)
    echo "#EXT-X-STREAM-INF:BANDWIDTH=$((largest * 8 / segment_seconds))"
    echo "http://~/film/$variant/list.m3u8"
  done
}
