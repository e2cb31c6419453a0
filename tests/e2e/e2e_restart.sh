#!/usr/bin/env bash
# Either side restarted: the daemon and oltsim find each other again (channel
# registration, device replay) and trapped DISCOVERs reach the daemon again.
source "$(dirname "$0")/e2e_env.sh"
start_oltsim
start_dhcp
ONU1_RX="recieve packet on port gonu1/1/1:1 gem \[100:100\] vlan 100"
registered() { [ "$(fp_stat registrations)" -gt "$1" ] && oltctl_ show fp | grep -q " module=1027 "; }
daemon_pid=$(cat "$RUN/dhcp.pid")

oltctl_ trap 100 v4 on >/dev/null
traced_after_discover "$NS_SUB1" "$ONU1_RX" || fail "no trace before the restarts"

# oltsim goes and comes back; the daemon keeps running, is replayed through its
# listening port and registers again on the channel.
replayed=$(replays)
stop_pid "$RUN/oltsim.pid"
wait_for 5 grep -q "Forwarding plane connection .* lost" "$RUN/dhcp.log" || fail "loss of the channel not noticed"
start_oltsim
wait_for 15 replayed_since "$replayed" || fail "daemon not replayed after oltsim restarted"
wait_for 15 registered 0 || fail "daemon did not register again"
kill -0 "$daemon_pid" || fail "the daemon did not survive oltsim"
oltctl_ trap 100 v4 on >/dev/null  # trap state went with the old oltsim
traced_after_discover "$NS_SUB1" "$ONU1_RX" || fail "no trace after oltsim restarted"
pass "oltsim restarted: daemon replayed, registered again, trapping"

# The daemon dies hard; a new one is replayed and gets the traps (oltsim
# kept the trap on).
regs=$(fp_stat registrations)
stop_pid "$RUN/dhcp.pid" KILL
no_module() { oltctl_ show fp | grep -q " connections=0 module=0 "; }
wait_for 5 no_module || fail "oltsim kept the dead daemon's connection"
start_dhcp
wait_for 15 registered "$regs" || fail "the new daemon did not register"
traced_after_discover "$NS_SUB1" "$ONU1_RX" || fail "no trace after the daemon restarted"
pass "daemon restarted after kill -9: replayed, registered, trapping"
