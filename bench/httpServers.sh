#!/usr/bin/env bash
# The HTTP server benchmarks: our service, nginx with one worker and a
# Boost.Beast asynchronous server on one thread, each pinned to core 0, loaded
# by wrk pinned to core 1, in interleaved rounds:
#   keepalive   wrk -t1 -c64, GET of a 13-byte body on 64 kept connections
#   pipelined   the same with 16 requests per write (a wrk script)
#   close       "Connection: close" on every request
# Prints each server's median requests per second and the ratios the README
# quotes, and checks that our server answered every one of the 64 keep-alive
# connections.
#
#   bench/httpServers.sh [build dir (build/bench)] [seconds per run (10)] [rounds (3)]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/bench}
seconds=${2:-10}
rounds=${3:-3}
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; rm -rf "$work"' EXIT

for tool in wrk nginx taskset curl; do
    command -v "$tool" >/dev/null || { echo "httpServers: $tool is missing (scripts/deps.sh --bench)"; exit 1; }
done
[[ -x "$build/bench/tessera_http_server" && -x "$build/bench/beast_http_server" ]] ||
    { echo "httpServers: build the servers first (bench/README.md)"; exit 1; }

mkdir -p "$work/nginx/logs"
cat >"$work/nginx.conf" <<CONF
daemon off;
master_process off;
worker_processes 1;
error_log $work/nginx/logs/error.log;
pid $work/nginx/nginx.pid;
events { worker_connections 1024; }
http {
    access_log off;
    keepalive_requests 1000000;
    server {
        listen 127.0.0.1:18082 backlog=511;
        location / { default_type text/plain; return 200 "Hello, World!"; }
    }
}
CONF
cat >"$work/pipeline.lua" <<'LUA'
init = function(args)
  local r = {}
  for i = 1, 16 do r[i] = wrk.format(nil, "/") end
  req = table.concat(r)
end
request = function() return req end
LUA

declare -A port=([tessera]=18080 [beast]=18081 [nginx]=18082)
start() { # server
    case "$1" in
    tessera) taskset -c 0 "$build/bench/tessera_http_server" 18080 >"$work/tessera.out" & ;;
    beast) taskset -c 0 "$build/bench/beast_http_server" 18081 >/dev/null & ;;
    nginx) taskset -c 0 nginx -p "$work/nginx" -c "$work/nginx.conf" & ;;
    esac
    pid=$!
    for _ in $(seq 100); do
        curl -s -o /dev/null "http://127.0.0.1:${port[$1]}/" && return 0
        sleep 0.1
    done
    echo "httpServers: $1 did not start"; exit 1
}
stop() { kill -TERM "$pid"; wait "$pid" 2>/dev/null || true; }

load() { # server scenario: prints requests per second
    local url="http://127.0.0.1:${port[$1]}/" extra=()
    case "$2" in
    pipelined) extra=(-s "$work/pipeline.lua") ;;
    close) extra=(-H "Connection: close") ;;
    esac
    local out
    out=$(taskset -c 1 wrk -t1 -c64 -d"${seconds}s" "${extra[@]}" "$url")
    if grep -q "Non-2xx\|Socket errors: connect [1-9]\|read [1-9]\|timeout [1-9]" <<<"$out"; then
        echo "httpServers: errors with $1 $2:" >&2
        echo "$out" >&2
    fi
    awk '/Requests\/sec:/ { print $2 }' <<<"$out"
}

declare -A results
for round in $(seq "$rounds"); do
    for server in tessera nginx beast; do
        for scenario in keepalive pipelined close; do
            start "$server"
            rate=$(load "$server" "$scenario")
            stop
            results[$server.$scenario]+="$rate "
            if [[ $server == tessera && $scenario == keepalive ]]; then
                served=$(awk '/connections served:/ { print $3 }' "$work/tessera.out")
                [[ $served -ge 64 ]] || echo "httpServers: only $served of 64 connections were answered" >&2
            fi
            echo "round $round: $server $scenario $rate req/s"
        done
    done
done

median() { tr ' ' '\n' <<<"$1" | grep . | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
echo
echo "CPU: $(lscpu | awk -F: '/Model name/ { gsub(/^ +/, "", $2); print $2 }')"
for scenario in keepalive pipelined close; do
    t=$(median "${results[tessera.$scenario]}")
    n=$(median "${results[nginx.$scenario]}")
    b=$(median "${results[beast.$scenario]}")
    printf '%-10s tessera %10.0f  nginx %10.0f  beast %10.0f  tessera/nginx %.2f  tessera/beast %.2f\n' \
        "$scenario" "$t" "$n" "$b" "$(awk -v a="$t" -v b="$n" 'BEGIN { print a / b }')" \
        "$(awk -v a="$t" -v b="$b" 'BEGIN { print a / b }')"
done
