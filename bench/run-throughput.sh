#!/bin/bash
# Measures events per second, CPU per event and peak memory delivered end to end: starts
# Debian's nginx on free loopback ports, plain HTTP/1.1 (also one that closes a connection every
# 100 requests) and HTTP/2 over TLS (with a certificate made here), with a fixed collection
# answer, and runs side by side against each: libcurl alone (bare_curl_bench, beside
# throughput_bench), the SDK's HTTP client alone and the SDK (throughput_bench), and h2load where
# it is installed. Then the SDK with its persistent queue on, over plain HTTP/1.1, in a process of
# its own (so its peak memory is its own), with the queue file in a directory beside the
# benchmark: it must be on a disk, since tmpfs counts no writes and the run reports the bytes
# written per event. Three rounds, then the medians over them and the SDK's figures as a share of
# libcurl's.
# usage: bench/run-throughput.sh [path/to/throughput_bench] [benchmark options...]
#   NORV_THROUGHPUT_QUEUE_ONLY=1 runs only the persistent-queue rounds.
#   NORV_THROUGHPUT_INSTRUCTIONS=1 counts instructions per event over HTTP/2 under valgrind instead.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
bench=${1:-$here/../build/bench/throughput_bench}
shift || true
nginx=${NGINX:-/usr/sbin/nginx}
[ -x "$bench" ] || { echo "run-throughput.sh: no benchmark at $bench" >&2; exit 2; }
[ -x "$nginx" ] || { echo "run-throughput.sh: nginx not found at $nginx" >&2; exit 2; }

work=$(mktemp -d /tmp/norv-throughput.XXXXXX)
chmod 755 "$work"
queue_dir=$(mktemp -d "$(dirname "$bench")/norv-queue.XXXXXX")
nginx_pid=
cleanup() {
    if [ -n "$nginx_pid" ] && kill -0 "$nginx_pid" 2>/dev/null; then
        kill -QUIT "$nginx_pid"
        wait "$nginx_pid" 2>/dev/null || true
    fi
    rm -rf "$work" "$queue_dir"
}
trap cleanup EXIT

free_port() {
    python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
port=$(free_port)
tls_port=$(free_port)
short_port=$(free_port)
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 -subj /CN=127.0.0.1 \
    -addext subjectAltName=IP:127.0.0.1 -keyout "$work/key.pem" -out "$work/cert.pem" 2>/dev/null

cat >"$work/nginx.conf" <<CONF
daemon off;
master_process on;
worker_processes 1;
pid $work/nginx.pid;
error_log $work/error.log warn;
events { worker_connections 1024; }
http {
    access_log off;
    client_body_temp_path $work/body;
    proxy_temp_path $work/proxy;
    fastcgi_temp_path $work/fastcgi;
    uwsgi_temp_path $work/uwsgi;
    scgi_temp_path $work/scgi;
    keepalive_requests 1000000;
    keepalive_timeout 60s;
    ssl_certificate $work/cert.pem;
    ssl_certificate_key $work/key.pem;
    server {
        listen 127.0.0.1:$port;
        listen 127.0.0.1:$tls_port ssl http2;
        location / {
            default_type application/json;
            return 200 '{"message":"ok","code":200,"payload":null}';
        }
    }
    server {
        listen 127.0.0.1:$short_port;
        keepalive_requests 100;
        location / {
            default_type application/json;
            return 200 '{"message":"ok","code":200,"payload":null}';
        }
    }
}
CONF

"$nginx" -p "$work" -c "$work/nginx.conf" &
nginx_pid=$!
for _ in $(seq 100); do
    if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
        break
    fi
    sleep 0.05
done

echo "nginx $($nginx -v 2>&1 | sed 's/.*nginx\///') on 127.0.0.1:$port, TLS on $tls_port"
echo "persistent queue in $queue_dir ($(stat -f -c %T "$queue_dir"))"
bare=$(dirname "$bench")/bare_curl_bench
plain="http://127.0.0.1:$port/api/v3/saveEvent"
short="http://127.0.0.1:$short_port/api/v3/saveEvent"
tls="https://127.0.0.1:$tls_port/api/v3/saveEvent"
queue_round() {
    echo "== round $1: plain HTTP/1.1, persistent queue on"
    NORV_THROUGHPUT_URL="$plain" TMPDIR="$queue_dir" "$bench" \
        --benchmark_filter=BM_DeliverEventsPersisted "${@:2}"
}
rounds() {
    for round in 1 2 3; do
        if [ "${NORV_THROUGHPUT_QUEUE_ONLY:-0}" = 1 ]; then
            queue_round "$round" "$@"
            continue
        fi
        echo "== round $round: HTTP/2 over TLS"
        "$bare" "$tls" "$work/cert.pem"
        NORV_THROUGHPUT_URL="$tls" NORV_THROUGHPUT_CA="$work/cert.pem" "$bench" \
            --benchmark_filter=-BM_DeliverEventsPersisted "$@"
        if command -v h2load >/dev/null; then
            printf '%240s' | tr ' ' x >"$work/h2load-body"
            h2load -n 100000 -c 1 -m 64 -d "$work/h2load-body" "$tls" | grep -E 'finished in|requests:'
        fi
        echo "== round $round: plain HTTP/1.1"
        "$bare" "$plain"
        NORV_THROUGHPUT_URL="$plain" "$bench" --benchmark_filter=-BM_DeliverEventsPersisted "$@"
        echo "== round $round: plain HTTP/1.1, nginx closing every 100 requests"
        "$bare" "$short"
        NORV_THROUGHPUT_URL="$short" "$bench" --benchmark_filter=-BM_DeliverEventsPersisted "$@"
        queue_round "$round" "$@"
    done
}
# Instructions per event under callgrind, which the machine's noise does not move: bursts of 500
# and of 2,500 events, and the difference over the 2,000 events between them, which leaves
# start-up and set-up out. throughput_bench sends each burst three times.
instructions() {
    local bursts=$1
    shift
    local counts=()
    for events in 500 2500; do
        NORV_THROUGHPUT_EVENTS=$events valgrind --tool=callgrind \
            --callgrind-out-file="$work/callgrind.out" "$@" >/dev/null 2>&1
        counts+=("$(callgrind_annotate "$work/callgrind.out" |
            awk '/PROGRAM TOTALS/ { gsub(",", "", $1); print $1 }')")
    done
    echo $(((counts[1] - counts[0]) / (2000 * bursts)))
}
if [ "${NORV_THROUGHPUT_INSTRUCTIONS:-0}" = 1 ]; then
    command -v valgrind >/dev/null || { echo "run-throughput.sh: valgrind is not installed" >&2; exit 2; }
    export NORV_THROUGHPUT_URL="$tls" NORV_THROUGHPUT_CA="$work/cert.pem"
    echo "== instructions per event, HTTP/2 over TLS (share of libcurl alone)"
    alone=$(instructions 1 "$bare" "$tls" "$work/cert.pem")
    printf '  %-20s %7d\n' "libcurl alone" "$alone"
    row() {
        printf '  %-20s %7d  %sx\n' "$1" "$2" \
            "$(awk -v a="$2" -v b="$alone" 'BEGIN { printf "%.3f", a / b }')"
    }
    # The yardstick handed the URL parsed once, as the SDK hands it: what the SDK itself adds.
    parsed=$(NORV_BARE_PARSED_URL=1 instructions 1 "$bare" "$tls" "$work/cert.pem")
    row "libcurl, URL parsed" "$parsed"
    row "SDK's client alone" "$(instructions 3 "$bench" --benchmark_filter=BM_ClientAlone)"
    row "SDK, straight" "$(instructions 3 "$bench" --benchmark_filter=BM_DeliverEvents/direct:1)"
    exit 0
fi
# Every line as it comes, then the medians over the rounds: one run on a shared machine is noise.
rounds "$@" | tee "$work/rounds.log"
python3 "$here/throughput-summary.py" <"$work/rounds.log"
