# Sourced by script/demo: an origin and three caches before it, each an nginx
# with a folder of its own under $work and a port on the loopback interface.

declare -A port_of pid_of # by the name of the server

# Nothing here needs root, so root gives it away.
as_nobody=()
[ "$(id -u)" -ne 0 ] || as_nobody=(setpriv --reuid nobody --regid nogroup --clear-groups)

port_answers() { (: <"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
running() { kill -0 "$1" 2>/dev/null; }
gone() { ! running "$1"; }

# Below the ports that the kernel gives to outgoing connections.
choose_ports() {
  local name port=$((20000 + RANDOM % 10000))
  for name in "$@"; do
    while port_answers $((++port)); do :; done
    port_of[$name]=$port
  done
}

# start_server NAME CONFIGURATION
start_server() {
  local name=$1 dir=$work/$1
  mkdir -p "$dir/tmp"
  [ "$(id -u)" -ne 0 ] || chown -R nobody "$dir"
  configure "$@"
  "${as_nobody[@]}" nginx -p "$dir" -e "$dir/error.log" -c "$dir/nginx.conf" &
  pid_of[$name]=$!
  wait_until 20 "$name to answer" up "$name"
}

up() {
  running "${pid_of[$1]}" || die "$1 did not start: $(cat "$work/$1/error.log")"
  port_answers "${port_of[$1]}"
}

# configure NAME CONFIGURATION: the lines of a server block.
configure() {
  cat >"$work/$1/nginx.conf" <<END
daemon off;
worker_processes 1;
pid nginx.pid;
error_log error.log;
events { worker_connections 256; }
http {
  access_log off;
  client_body_temp_path tmp/body;
  proxy_temp_path tmp/proxy;
  fastcgi_temp_path tmp/fastcgi;
  uwsgi_temp_path tmp/uwsgi;
  scgi_temp_path tmp/scgi;
  proxy_cache_path tmp/cache keys_zone=cache:1m use_temp_path=off;
  server {
    listen 127.0.0.1:${port_of[$1]};
    $2
  }
}
END
}

origin() { echo "root $work/www;"; }

# cache_at RATE: in bytes a second. Small pieces make nginx keep the rate evenly.
cache_at() {
  echo "limit_rate $1; sendfile_max_chunk 16k;
    location / {
      proxy_pass http://127.0.0.1:${port_of[origin]};
      proxy_cache cache;
      proxy_cache_valid 200 10m;
    }"
}

# limit_caches RATE: what is being sent keeps its rate, the next answer has the new one.
limit_caches() {
  local name
  for name in "${caches[@]}"; do
    gone "${pid_of[$name]}" && continue
    configure "$name" "$(cache_at "$1")"
    kill -HUP "${pid_of[$name]}"
  done
}

# kill_cache NAME: it hangs in the middle of an answer until weir gives the
# answer up, then it is gone for good. Being stopped for less would not do:
# weir takes an answer that ends early for the whole of it, and so would lose
# frames by rights.
kill_cache() {
  local master=${pid_of[$1]} from workers
  from=$(log_lines)
  wait_until 20 "the next segment" logged_since "$from" '^getting chunk from '
  read -ra workers <"/proc/$master/task/$master/children"
  hung=("${workers[@]}")
  kill -STOP "${hung[@]}"
  wait_until 20 "weir to give up on the hung cache" logged_since "$from" '^chunk get from .* FAILED'
  kill -CONT "${hung[@]}"
  hung=()
  sleep 0.2 # A retry that came too soon is answered; one that comes later is refused.
  kill -QUIT "$master"
  wait_until 20 "the cache to end" gone "$master"
  wait_until 30 "weir to mark the cache dead" logged_since "$from" "^  server: $(address "$1") DEAD"
}

address() { echo "127.0.0.1:${port_of[$1]}"; }
