# Sourced by the DORA benchmarks after they set NSS (their namespaces), RUN
# (a scratch directory), BUILD and NAME: helpers, and a teardown on exit that
# stops what they started and removes their namespaces.
LOADGEN=$BUILD/bench/dhcp_loadgen
# The device manager's ports live in our own namespace; off the defaults all the same.
PORT=$((20000 + ($$ % 5000) * 4))
pids=()  # started in the background with "ip netns exec" itself, so $! is the program

die() { echo "$NAME: $*" >&2; exit 1; }
in_ns() { local ns=$1; shift; ip netns exec "$ns" "$@"; }
dhcpsh_() { timeout 10 "$BUILD/dhcpsh" -s "$RUN/dhcp.vty" "$@"; }
oltctl_() { timeout 5 "$BUILD/sim/oltctl" -s "$RUN/oltsim.ctl" "$@"; }

wait_for() {  # wait_for SECONDS TEST...
  local t=$(($1 * 10)); shift
  until "$@" 2>/dev/null; do
    t=$((t - 1)); [ $t -gt 0 ] || return 1
    sleep 0.1
  done
}

stop_pid() {  # only what we started, by its pid
  local pid=$1
  kill -0 "$pid" 2>/dev/null || return 0
  kill "$pid" 2>/dev/null || true
  for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || return 0; sleep 0.1; done
  kill -9 "$pid" 2>/dev/null || true
}

cleanup() {
  local pid
  [ -f "$RUN/dhcp.pid" ] && pids+=("$(cat "$RUN/dhcp.pid")")
  for pid in "${pids[@]}"; do stop_pid "$pid"; done
  for ns in "${NSS[@]}"; do
    # Anything still running in a namespace of ours was started by us.
    for pid in $(ip netns pids "$ns" 2>/dev/null); do kill -9 "$pid" 2>/dev/null || true; done
    ip netns del "$ns" 2>/dev/null || true
  done
  [ -n "${KEEP_RUN:-}" ] || rm -rf "$RUN"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

[ "$(id -u)" -eq 0 ] || die "run as root (network namespaces, AF_PACKET)"
for x in "$LOADGEN" "$BUILD/dhcp" "$BUILD/dhcpsh" "$BUILD/sim/oltsim" "$BUILD/sim/oltctl"; do
  [ -x "$x" ] || die "missing $x (build dhcp_loadgen dhcp dhcpsh oltsim oltctl)"
done

# The namespaces, quiet: no IPv6 chatter mixed into the traffic.
for ns in "${NSS[@]}"; do
  ip netns add "$ns"
  in_ns "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
  in_ns "$ns" ip link set lo up
done
