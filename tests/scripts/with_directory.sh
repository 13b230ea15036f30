#!/usr/bin/env bash
# with_directory.sh DIR -- CMD [ARG...]
#
# Runs CMD against a throwaway slapd: starts one in DIR (scripts/directory start --dir DIR
# --nosync), exports the variables of DIR/env (QORLDAP_CONF_DIR, LDAP_URI, LDAP_PORT,
# LDAP_BASEDN, LDAP_BINDDN, LDAP_BINDPW, QORLDAP_DIR, ...), runs CMD, stops the server
# whichever way this script ends (CMD's exit, a failure, INT/TERM/HUP) and exits with
# CMD's status (128+n when a signal n ended it). The directory's own messages go to
# stderr so CMD's stdout stays its own.
#
# A server from DIR that is already running is left alone: the script refuses (exit 1)
# rather than stop someone else's server afterwards. A SIGKILL of this script cannot be
# caught; slapd stays in this script's process group, so killing the group stops it too.
# shellcheck disable=SC2317  # cleanup and on_signal run from traps
set -euo pipefail

usage() { echo "usage: with_directory.sh DIR -- CMD [ARG...]" >&2; exit 2; }
if [ $# -lt 3 ] || [ "$2" != "--" ]; then usage; fi
dir=$1
shift 2
[ -n "$dir" ] || usage

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
directory=$here/../../scripts/directory
[ -x "$directory" ] || { echo "with_directory.sh: $directory not found" >&2; exit 1; }

if "$directory" status --dir "$dir" >/dev/null 2>&1; then
    echo "with_directory.sh: a server from $dir is already running; not touching it" >&2
    exit 1
fi

child=""
cleanup() {
    "$directory" stop --dir "$dir" >&2 || true
}
on_signal() {
    # $1 signal name, $2 exit status. Pass the signal on to CMD, wait for it, leave; the
    # EXIT trap then stops the server.
    trap - INT TERM HUP
    if [ -n "$child" ]; then
        kill -s "$1" "$child" 2>/dev/null || true
        wait "$child" 2>/dev/null || true
    fi
    exit "$2"
}
trap cleanup EXIT
trap 'on_signal INT 130' INT
trap 'on_signal TERM 143' TERM
trap 'on_signal HUP 129' HUP

"$directory" start --dir "$dir" --nosync >&2

set -a
# shellcheck source=/dev/null
. "$dir/env"
set +a

# CMD runs in the background so a signal reaches the traps at once instead of after CMD
# ends; its stdin is passed on explicitly (a background command would get /dev/null).
exec 3<&0
"$@" <&3 3<&- &
child=$!
exec 3<&-
status=0
wait "$child" || status=$?
child=""
exit "$status"
