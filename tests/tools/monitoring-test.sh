#!/usr/bin/env bash
# The HTTP monitoring endpoint of connector-shell read by the real consumers of its pages.
# Usage: monitoring-test.sh SHELL promtool|prometheus|chromium OUTPUT_DIR
#   promtool    `promtool check metrics` accepts /metrics after requests of several types, one of
#               them a template type, with no error and no warning (every mode first checks that
#               NAME.statistics.reset leaves the exported counters alone)
#   prometheus  a Prometheus server scraping every second reads back the request count and a p99
#   chromium    headless Chromium renders / with the table rows and one SVG per type, and writes
#               a screenshot to OUTPUT_DIR/status-page.png
set -euo pipefail
shell=$(realpath "$1") mode=$2 output=$(realpath "$3")
work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# The shell reads its commands from a FIFO held open here, so it serves until the test ends.
mkfifo "$work/in"
(cd "$work" && exec "$shell" --http 127.0.0.1:0 <"$work/in" >"$work/out" 2>"$work/err") &
pids+=($!)
exec 3>"$work/in"
for _ in $(seq 100); do
  port=$(sed -n 's/^serving HTTP on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$work/out")
  [ -n "$port" ] && break
  sleep 0.1
done
[ -n "$port" ] || fail "the shell did not report its HTTP port: $(cat "$work/err")"
base=http://127.0.0.1:$port

# 30 pings, 20 orders and 10 batches (demo::Batch<demo::Order>) through the statistics provider,
# then a reset of what the commands show, which the exported counters must not follow; the
# greeting sent after it tells when the reset has run.
{
  echo "send api ping -n 30"; echo "send api order x -n 20"; echo "send api batch y -n 10"
  echo "metrics.statistics.reset"; echo "send api greeting z"
} >&3
for _ in $(seq 100); do
  grep -q 'demo::Greeting",outcome="succeeded"} 1' <(curl -sf "$base/metrics") && break
  sleep 0.1
done
curl -sf "$base/metrics" >"$work/metrics"
grep -q 'demo::Batch<demo::Order>",outcome="succeeded"} 10' "$work/metrics" ||
  fail "the requests before the reset do not show in /metrics: $(head -c 2000 "$work/metrics")"

case $mode in
promtool)
  report=$(promtool check metrics <"$work/metrics" 2>&1) || fail "promtool refused: $report"
  [ -z "$report" ] || fail "promtool warned: $report"
  ;;
prometheus)
  web=$((port + 1))
  cat >"$work/prometheus.yml" <<EOF
global: {scrape_interval: 1s, evaluation_interval: 1s}
scrape_configs: [{job_name: connector, static_configs: [{targets: ["127.0.0.1:$port"]}]}]
EOF
  prometheus --config.file="$work/prometheus.yml" --storage.tsdb.path="$work/tsdb" \
    --web.listen-address="127.0.0.1:$web" >"$work/prometheus.log" 2>&1 &
  pids+=($!)
  query() { curl -sf "http://127.0.0.1:$web/api/v1/query" --data-urlencode "query=$1" |
    python3 -c 'import json,sys; r=json.load(sys.stdin)["data"]["result"]; print(r[0]["value"][1] if r else "")'; }
  total=""
  for _ in $(seq 120); do
    total=$(query 'sum(connector_requests_total{provider="metrics",type="demo::Batch<demo::Order>"})' 2>/dev/null || true)
    [ "$total" = 10 ] && break
    sleep 0.5
  done
  [ "$total" = 10 ] || fail "Prometheus read $total batches, not 10: $(tail -5 "$work/prometheus.log")"
  # Every ping took well under 10 ms, so the p99 Prometheus computes lies within the first bounds.
  p99=$(query 'histogram_quantile(0.99, sum by (le) (connector_request_duration_seconds_bucket{type="demo::Ping"}))')
  python3 -c "import sys; p=float('$p99'); sys.exit(0 if 0 < p <= 0.01 else 1)" ||
    fail "p99 of the pings read as '$p99' seconds"
  ;;
chromium)
  browser=(chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run
    --disable-background-networking --disable-component-update --disable-sync)
  "${browser[@]}" --user-data-dir="$work/profile-dom" --dump-dom "$base/" >"$work/dom" 2>/dev/null
  for type in 'demo::Ping' 'demo::Order' 'demo::Batch&lt;demo::Order&gt;' 'demo::Greeting'; do
    grep -q "<td>$type</td>" "$work/dom" || fail "no table row for $type"
  done
  svgs=$(grep -o '<svg' "$work/dom" | wc -l)
  [ "$svgs" = 4 ] || fail "$svgs SVG plots for 4 types"
  "${browser[@]}" --user-data-dir="$work/profile-shot" --window-size=1000,1400 \
    --screenshot="$output/status-page.png" "$base/" >/dev/null 2>&1
  [ -s "$output/status-page.png" ] || fail "no screenshot at $output/status-page.png"
  ;;
*) fail "unknown mode $mode" ;;
esac
echo "monitoring $mode: ok"
