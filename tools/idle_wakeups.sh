#!/bin/sh
# Runs idle_wakeups with Alice's line registered at a Kamailio started here
# for the run: a bare registrar on 127.0.0.1 that keeps its bindings in memory.
#
#   tools/idle_wakeups.sh build/default/tools/idle_wakeups [idle_wakeups options]
set -eu
program=${1:?usage: idle_wakeups.sh path/to/idle_wakeups [options]}
shift
modules=/usr/lib/x86_64-linux-gnu/kamailio/modules
[ -f "$modules/registrar.so" ] || modules=/usr/lib/kamailio/modules
port=${IDLE_KAMAILIO_PORT:-$((20000 + $(od -An -N2 -tu2 /dev/urandom) % 20000))}
dir=$(mktemp -d)
kamailio_pid=
cleanup() {
    [ -n "$kamailio_pid" ] && kill "$kamailio_pid" 2>/dev/null && wait "$kamailio_pid" 2>/dev/null
    rm -rf "$dir"
}
trap cleanup EXIT INT TERM
cat >"$dir/kamailio.cfg" <<CFG
#!KAMAILIO
debug=1
log_stderror=yes
children=1
tcp_children=1
auto_aliases=no
dns=no
rev_dns=no
listen=udp:127.0.0.1:$port
listen=tcp:127.0.0.1:$port
mpath="$modules/"
loadmodule "tm.so"
loadmodule "sl.so"
loadmodule "pv.so"
loadmodule "usrloc.so"
loadmodule "registrar.so"
modparam("usrloc", "db_mode", 0)
modparam("registrar", "max_expires", 3600)
request_route {
    if (method == "REGISTER") { save("location"); exit; }
    sl_send_reply("404", "Not Found");
}
CFG
kamailio -f "$dir/kamailio.cfg" -P "$dir/kamailio.pid" -w "$dir" -Y "$dir" -DD -E -m 32 -M 4 >"$dir/kamailio.log" 2>&1 &
kamailio_pid=$!
# Listening once its UDP socket is bound.
tries=0
until ss -Hlun "sport = :$port" | grep -q .; do
    tries=$((tries + 1))
    if [ "$tries" -gt 50 ] || ! kill -0 "$kamailio_pid" 2>/dev/null; then
        echo "Kamailio did not start:" >&2
        cat "$dir/kamailio.log" >&2
        exit 1
    fi
    sleep 0.1
done
"$program" --registrar "127.0.0.1:$port" "$@"
