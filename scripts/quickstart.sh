#!/usr/bin/env bash
# Installs what is needed, builds the broker and runs it in the foreground on a local
# default: a supervised nats-server with JetStream on 127.0.0.1, its state under .state/,
# two demo scan workers (service "scan", and the work queue of service "scanjs"), the
# AMQP front door on 127.0.0.1 and the REST front door in plain HTTP on a free port from 8080.
# Ctrl-C (or SIGTERM) stops the broker, its nats-server and the workers. With --nodes 3 it
# runs a local cluster of three brokers instead (scripts/quickstart-cluster.sh).
set -euo pipefail
# --nodes N (3 or more): a local cluster instead, see quickstart-cluster.sh.
if [ "${1:-}" = "--nodes" ]; then
  [ "${2:-1}" = 1 ] || exec bash "$(dirname "${BASH_SOURCE[0]}")/quickstart-cluster.sh" "${2:-}"
  shift 2
fi
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
bash scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j2 --target qm-av-broker qm-scan-worker qm-amqp-scan

state="$root/.state"
mkdir -p "$state/jetstream"
chmod 700 "$state"

port_taken() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
port=4222
while port_taken "$port"; do
  port=$((port + 1))
  [ "$port" -lt 4300 ] || { echo "quickstart: no free port in 4222-4299" >&2; exit 1; }
done

# The REST front door's port: the first free one from 8080.
first_free_port() { # from, to (exclusive)
  local p=$1
  while port_taken "$p"; do
    p=$((p + 1))
    [ "$p" -lt "$2" ] || { echo "quickstart: no free port in $1-$(($2 - 1))" >&2; return 1; }
  done
  echo "$p"
}
http_port=$(first_free_port 8080 8180)

# The AMQP front door: 5672, or the next free port.
amqp_port=5672
while port_taken "$amqp_port"; do
  amqp_port=$((amqp_port + 1))
  [ "$amqp_port" -lt 5772 ] || { echo "quickstart: no free port in 5672-5771" >&2; exit 1; }
done

random_password() { head -c 24 /dev/urandom | base64 | tr -d '/+=\n'; }

# The broker's two NATS identities, a demo client and the demo workers' user, in the
# format the broker reads. Kept across runs so that the passwords stay stable.
credentials="$state/credentials.conf"
if [ ! -f "$credentials" ] || ! grep -q '"scan-worker"' "$credentials"; then
  umask 077
  cat > "$credentials" <<CREDS
# Users of the local nats-server, read by the broker. nats-server knows only the broker's
# own two (nats-server.conf) and sends every other login to the broker's auth callout.
users = [
  {
    user: "qm-auth"
    password: "$(random_password)"
  }
  {
    user: "qm-gateway"
    password: "$(random_password)"
  }
  {
    user: "demo"
    password: "$(random_password)"
  }
  {
    user: "scan-worker"
    password: "$(random_password)"
  }
]
CREDS
  umask 022
fi
password_of() { awk -v u="$1" '$1 == "user:" { cur = $2; gsub(/"/, "", cur) } $1 == "password:" && cur == u { p = $2; gsub(/"/, "", p); print p; exit }' "$credentials"; }
auth_password=$(password_of qm-auth)
gw_password=$(password_of qm-gateway)
demo_password=$(password_of demo)
worker_password=$(password_of scan-worker)
# The broker's own passwords go to it in files, not on its command line (where ps shows them).
umask 077
printf '%s\n' "$auth_password" > "$state/qm-auth.password"
printf '%s\n' "$gw_password" > "$state/qm-gateway.password"
umask 022

# nats-server trusts the JWTs this key signs; the seed is made on first use and kept.
issuer=$(./build/qm-av-broker --print-issuer-nkey --auth-signing-key "$state/issuer.seed")
xkey=$(./build/qm-av-broker --print-issuer-xkey --auth-signing-key "$state/issuer.seed")

# The packaged configuration, rendered for this machine: the broker's auth service in an
# account of its own, every admitted login in the fleet's account.
sed -e "s|@HOST@|127.0.0.1|" -e "s|@PORT@|$port|" -e "s|@STORE_DIR@|$state/jetstream|" \
    -e "s|@ISSUER_NKEY@|$issuer|" -e "s|@AUTH_PASSWORD@|$auth_password|" -e "s|@GATEWAY_PASSWORD@|$gw_password|" \
    -e "s|@ISSUER_XKEY@|$xkey|" \
    packaging/nats-server.conf > "$state/nats-server.conf"

# The broker runs in the background so that the demo workers can follow once its
# buckets and work queues exist; its log goes to the terminal and to a file we watch.
broker_log="$state/qm-av-broker.log"
: > "$broker_log"
./build/qm-av-broker \
  --nats-url "nats://127.0.0.1:$port" \
  --nats-server-binary "$root/.deps/nats-server/usr/sbin/nats-server" \
  --nats-server-config "$state/nats-server.conf" \
  --nats-server-pid-file "$state/nats-server.pid" \
  --pid-file "$state/qm-av-broker.pid" \
  --tracefile "$broker_log" \
  --auth-file "$credentials" \
  --permissions-file "$root/packaging/qm-av-permissions.json" \
  --auth-signing-key "$state/issuer.seed" \
  --auth-nats-user qm-auth --auth-nats-password-file "$state/qm-auth.password" \
  --gw-nats-user qm-gateway --gw-nats-password-file "$state/qm-gateway.password" \
  --js-work-services scanjs \
  --amqp-enabled true --amqp-listen-host 127.0.0.1 --amqp-listen-port "$amqp_port" \
  --http-enabled true --http-listen-host 127.0.0.1 --http-listen-port "$http_port" \
  --update-binary false \
  "$@" &
broker_pid=$!
worker_pids=()
stop_all() {
  trap - INT TERM EXIT
  kill -TERM "${worker_pids[@]}" "$broker_pid" 2>/dev/null || true
  wait "$broker_pid" 2>/dev/null || true
  wait "${worker_pids[@]}" 2>/dev/null || true
}
trap stop_all INT TERM EXIT

until grep -q "qm-av-broker ready" "$broker_log"; do
  kill -0 "$broker_pid" 2>/dev/null || { echo "quickstart: the broker did not start" >&2; exit 1; }
  sleep 0.2
done

# The workers log in as scan-worker (the worker role), through the broker's auth callout.
start_worker() { # name, then the worker's own options
  local log="$state/scan-worker-$1.log"
  shift
  ./build/qm-scan-worker --nats-url "nats://127.0.0.1:$port" --user scan-worker --password "$worker_password" "$@" \
    > "$log" 2>&1 &
  worker_pids+=($!)
  until grep -q "qm-scan-worker: ready" "$log"; do
    kill -0 "${worker_pids[-1]}" 2>/dev/null || { echo "quickstart: a demo worker did not start, see $log" >&2; exit 1; }
    sleep 0.2
  done
}
start_worker scan --service scan
start_worker scanjs --service scanjs --work-queue

echo "quickstart: nats-server on nats://127.0.0.1:$port, state in $state"
echo "quickstart: demo workers for scan and (work queue) scanjs ready; logs in $state/scan-worker-*.log"
echo "quickstart: log in as demo / $demo_password, for example:"
echo "  printf 'CONNECT {\"user\":\"demo\",\"pass\":\"$demo_password\"}\\r\\nPING\\r\\n' | nc -q 1 127.0.0.1 $port"
echo "quickstart: REST front door on http://127.0.0.1:$http_port/vsi, for example:"
echo "  curl -u 'demo:$demo_password' -H 'X-Target-Service: scan' -F 'request={\"scan\":1}' -F payload=@README.md http://127.0.0.1:$http_port/vsi"
echo "quickstart: to send a scan by hand, see \"A scan by hand\" in README.md (DEMO_PASSWORD=$demo_password PORT=$port)"
echo "quickstart: AMQP front door on amqp://127.0.0.1:$amqp_port; scan a file through it with:"
echo "  QM_AMQP_PASSWORD=$demo_password ./build/qm-amqp-scan --url amqp://127.0.0.1:$amqp_port --user demo --service scan --file FILE"
wait "$broker_pid"
