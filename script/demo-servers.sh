# shellcheck shell=bash
# shellcheck disable=SC2154 # work, the temporary folder, is set by script/demo
# Sourced by script/demo: an origin and three caches before it, each an nginx
# with a folder of its own under $work and a port on the loopback interface.

readonly caches=(cache1 cache2 cache3)
declare -A port_of pid_of # by the name of the server
declare -A name_of        # by its port
hung=()                   # processes of a cache that are stopped

# Nothing here needs root, so root gives it away.
as_nobody=()
[ "$(id -u)" -ne 0 ] || as_nobody=(setpriv --reuid nobody --regid nogroup --clear-groups)

port_answers() { (: <"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
gone() { ! kill -0 "$1" 2>/dev/null; }
address() { echo "127.0.0.1:${port_of[$1]}"; }

# start_servers RATE: with free ports below those of outgoing connections.
start_servers() {
  local name dir port=$((20000 + RANDOM % 10000))
  for name in origin "${caches[@]}"; do
    while port_answers $((++port)); do :; done
    port_of[$name]=$port name_of[$port]=$name
    dir=$work/$name
    mkdir -p "$dir/tmp"
    [ "$(id -u)" -ne 0 ] || chown -R nobody "$dir"
    configure "$name" "$1"
    "${as_nobody[@]}" nginx -p "$dir" -e "$dir/error.log" -c "$dir/nginx.conf" &
    pid_of[$name]=$!
    wait_until 20 "$name to answer" port_answers $port
  done
}

# configure NAME RATE: in bytes a second. Small pieces make nginx keep a rate evenly.
configure() {
  local content
  content="limit_rate $2; sendfile_max_chunk 16k; proxy_cache cache; proxy_cache_valid 200 10m;
      proxy_pass http://$(address origin);"
  [ "$1" != origin ] || content="root $work/www;"
  cat >"$work/$1/nginx.conf" <<END
daemon off;
worker_processes 1;
pid nginx.pid;
error_log error.log;
events {}
http {
  access_log off;
  client_body_temp_path tmp/body; proxy_temp_path tmp/proxy; fastcgi_temp_path tmp/fastcgi;
  uwsgi_temp_path tmp/uwsgi; scgi_temp_path tmp/scgi;
  proxy_cache_path tmp/cache keys_zone=cache:1m use_temp_path=off;
  server {
    listen $(address "$1");
    location / {
      $content
    }
  }
}
END
}

# limit_caches RATE: what is being sent keeps its rate, the next answer has the new one.
limit_caches() {
  local name
  for name in "${caches[@]}"; do
    gone "${pid_of[$name]}" && continue
    configure "$name" "$1"
    kill -HUP "${pid_of[$name]}"
  done
}

# kill_cache: the cache in use hangs in the middle of a segment until weir gives
# that answer up, and then it is gone for good. Gone at once would not do: weir
# takes an answer that ends early for the whole of it, and frames are missing.
kill_cache() {
  local line port master
  line=$(log_lines)
  wait_until 20 "the next segment" logged_since "$line" '^for url .*[.]ts '
  port=$(sed -n 's/^for url .*[.]ts .* selected server: .*://p' "$work/weir.log" | tail -n 1)
  dead_cache=${name_of[$port]}
  master=${pid_of[$dead_cache]}
  read -ra hung <"/proc/$master/task/$master/children" || [ ${#hung[@]} -gt 0 ] # no end of line there
  kill -STOP "${hung[@]}"
  say "$dead_cache, which is in use, hangs ..."
  wait_until 20 "weir to give up on it" logged_since "$line" '^chunk get from .* FAILED'
  kill -CONT "${hung[@]}"
  hung=()
  sleep 0.2 # Were weir back already, it would get its answer; from now on it is refused.
  kill -QUIT "$master"
  wait_until 20 "$dead_cache to end" gone "$master"
  say "... and is gone"
  wait_until 30 "weir to mark it dead" logged_since "$line" "^  server: $(address "$dead_cache") DEAD"
}
