#!/usr/bin/env bash
# A local cluster of N brokers (default 3) on loopback: each supervises its own nats-server,
# joined to the others by cluster routes, with its own state directory under
# .state/cluster/nodeK. All share one credentials file and one signing key and run with
# --kv-replicas N and --js-work-services scanjs; each opens its REST and AMQP doors on
# ports of its own. The demo worker for "scan" runs on the last node, the one for the
# work queue "scanjs" on node 2. Run through `bash scripts/quickstart.sh --nodes 3`.
# Ctrl-C (or SIGTERM) stops every node and worker.
set -euo pipefail
nodes=${1:-3}
[[ "$nodes" =~ ^[0-9]+$ ]] && [ "$nodes" -ge 3 ] || { echo "quickstart: --nodes needs 3 or more" >&2; exit 2; }
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j2 --target qm-av-broker qm-scan-worker qm-amqp-scan

state="$root/.state/cluster"
mkdir -p "$state"
chmod 700 "$state"

port_taken() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
taken=" "
# The first port from $1 that is free and not handed out yet.
next_port() {
  local p=$1
  while port_taken "$p" || [[ "$taken" == *" $p "* ]]; do p=$((p + 1)); done
  taken+="$p "
  echo "$p"
}

random_password() { head -c 24 /dev/urandom | base64 | tr -d '/+=\n'; }
credentials="$state/credentials.conf"
if [ ! -f "$credentials" ]; then
  umask 077
  printf 'users = [\n' > "$credentials"
  for user in qm-auth qm-gateway demo scan-worker; do
    printf '  {\n    user: "%s"\n    password: "%s"\n  }\n' "$user" "$(random_password)" >> "$credentials"
  done
  printf ']\n' >> "$credentials"
  umask 022
fi
password_of() { awk -v u="$1" '$1 == "user:" { cur = $2; gsub(/"/, "", cur) } $1 == "password:" && cur == u { p = $2; gsub(/"/, "", p); print p; exit }' "$credentials"; }
auth_password=$(password_of qm-auth)
gw_password=$(password_of qm-gateway)
demo_password=$(password_of demo)
worker_password=$(password_of scan-worker)
issuer=$(./build/qm-av-broker --print-issuer-nkey --auth-signing-key "$state/issuer.seed")
xkey=$(./build/qm-av-broker --print-issuer-xkey --auth-signing-key "$state/issuer.seed")

declare -a client_port route_port http_port amqp_port
for k in $(seq 1 "$nodes"); do
  client_port[$k]=$(next_port $((4222 + 10 * (k - 1))))
  route_port[$k]=$(next_port $((6222 + 10 * (k - 1))))
  http_port[$k]=$(next_port $((8080 + 10 * (k - 1))))
  amqp_port[$k]=$(next_port $((5672 + 10 * (k - 1))))
done

# Each node: its nats-server configuration (the packaged one plus a name and routes to the
# others) and a start script that runs its broker in the background, for restarts by hand.
for k in $(seq 1 "$nodes"); do
  home="$state/node$k"
  mkdir -p "$home/jetstream"
  routes=""
  for j in $(seq 1 "$nodes"); do
    [ "$j" = "$k" ] || routes+="    \"nats-route://127.0.0.1:${route_port[$j]}\"\n"
  done
  {
    sed -e "s|@HOST@|127.0.0.1|" -e "s|@PORT@|${client_port[$k]}|" -e "s|@STORE_DIR@|$home/jetstream|" \
        -e "s|@ISSUER_NKEY@|$issuer|" -e "s|@AUTH_PASSWORD@|$auth_password|" \
        -e "s|@GATEWAY_PASSWORD@|$gw_password|" -e "s|@ISSUER_XKEY@|$xkey|" packaging/nats-server.conf
    printf 'server_name: "node%s"\ncluster {\n  name: "qm-local"\n  listen: "127.0.0.1:%s"\n  routes: [\n%b  ]\n}\n' \
      "$k" "${route_port[$k]}" "$routes"
  } > "$home/nats-server.conf"
  cat > "$home/start.sh" <<START
#!/usr/bin/env bash
# Starts node $k's broker (and with it its nats-server) in the background.
: > "$home/qm-av-broker.log"
setsid "$root/build/qm-av-broker" \\
  --nats-url "nats://127.0.0.1:${client_port[$k]}" \\
  --nats-server-binary "$root/.deps/nats-server/usr/sbin/nats-server" \\
  --nats-server-config "$home/nats-server.conf" --nats-server-pid-file "$home/nats-server.pid" \\
  --pid-file "$home/qm-av-broker.pid" --tracefile "$home/qm-av-broker.log" \\
  --auth-file "$credentials" --auth-signing-key "$state/issuer.seed" \\
  --permissions-file "$root/packaging/qm-av-permissions.json" \\
  --auth-nats-user qm-auth --auth-nats-password "$auth_password" \\
  --gw-nats-user qm-gateway --gw-nats-password "$gw_password" \\
  --kv-replicas $nodes --js-work-services scanjs --js-ackwait-ms 10000 \\
  --amqp-enabled true --amqp-listen-host 127.0.0.1 --amqp-listen-port ${amqp_port[$k]} \\
  --http-enabled true --http-listen-host 127.0.0.1 --http-listen-port ${http_port[$k]} \\
  --update-binary false > /dev/null 2>&1 &
echo \$!
START
  chmod +x "$home/start.sh"
done

broker_pids=()
worker_pids=()
stop_all() {
  trap - INT TERM EXIT
  kill -TERM "${worker_pids[@]}" 2>/dev/null || true
  for k in $(seq 1 "$nodes"); do
    [ -f "$state/node$k/qm-av-broker.pid" ] && kill -TERM "$(cat "$state/node$k/qm-av-broker.pid")" 2>/dev/null || true
  done
  # The brokers are not our children (each leads a process group of its own): wait for their pid files to go.
  for _ in $(seq 1 150); do
    ls "$state"/node*/qm-av-broker.pid > /dev/null 2>&1 || break
    sleep 0.2
  done
}
trap stop_all INT TERM EXIT

# All at once: a clustered JetStream needs its peers before the buckets can be made.
for k in $(seq 1 "$nodes"); do broker_pids+=("$(bash "$state/node$k/start.sh")"); done
for k in $(seq 1 "$nodes"); do
  until grep -q "qm-av-broker ready" "$state/node$k/qm-av-broker.log" 2>/dev/null; do
    kill -0 "${broker_pids[$((k - 1))]}" 2>/dev/null || { echo "quickstart: node $k did not start, see $state/node$k/qm-av-broker.log" >&2; exit 1; }
    sleep 0.2
  done
done

start_worker() { # node, name, then the worker's own options
  local node=$1 log="$state/scan-worker-$2.log"
  shift 2
  ./build/qm-scan-worker --nats-url "nats://127.0.0.1:${client_port[$node]}" --user scan-worker \
    --password "$worker_password" "$@" > "$log" 2>&1 &
  worker_pids+=($!)
  until grep -q "qm-scan-worker: ready" "$log"; do
    kill -0 "${worker_pids[-1]}" 2>/dev/null || { echo "quickstart: a demo worker did not start, see $log" >&2; exit 1; }
    sleep 0.2
  done
}
start_worker "$nodes" scan --service scan
start_worker 2 scanjs --service scanjs --work-queue

for k in $(seq 1 "$nodes"); do
  echo "quickstart: node $k: nats://127.0.0.1:${client_port[$k]} (routes ${route_port[$k]}), REST http://127.0.0.1:${http_port[$k]}/vsi, AMQP amqp://127.0.0.1:${amqp_port[$k]}, state $state/node$k"
done
echo "quickstart: demo workers: scan on node $nodes, scanjs (work queue) on node 2; logs in $state/scan-worker-*.log"
echo "quickstart: scan through node 1's door, served on another node:"
echo "  curl -u 'demo:$demo_password' -H 'X-Target-Service: scan' -F 'request={\"scan\":1}' -F payload=@README.md http://127.0.0.1:${http_port[1]}/vsi"
echo "quickstart: lose node 2 whole (broker and nats-server), then bring it back:"
echo "  kill -KILL -- -\$(cat $state/node2/qm-av-broker.pid)"
echo "  bash $state/node2/start.sh; grep 'qm-av-broker ready' $state/node2/qm-av-broker.log"
echo "quickstart: Ctrl-C stops every node"
wait "${worker_pids[@]}"
