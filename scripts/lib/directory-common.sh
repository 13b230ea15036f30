# directory-common.sh -- what scripts/directory and its helpers (directory-389ds,
# directory-providers, directory-populate) share. Sourced, never run, after PROG is set to the
# name that starts every message:
#
#   PROG=directory
#   . "$(dirname "${BASH_SOURCE[0]}")/lib/directory-common.sh"
#
# It sets the shell's options, the umask 077 under which every file of a throwaway directory is
# written (DIR 0700, env and soap.ini 0600: they hold passwords), PATH (slapd and its tools live
# in /usr/sbin, often missing from a normal user's PATH) and LDAPNOINIT (the user's ldap.conf and
# .ldaprc, with their BASE, URI and TLS settings, stay away from our ldap tools). It gives
# SCRIPT_DIR (scripts/), PROJECT_DIR, LDAP_INI and DEFAULT_DIR (the DIR when none is given).
# shellcheck shell=bash disable=SC2034
set -euo pipefail
umask 077
PATH=$PATH:/usr/sbin:/sbin
export LDAPNOINIT=1
SCRIPT_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
PROJECT_DIR=$(cd "$SCRIPT_DIR/.." && pwd)
LDAP_INI=$PROJECT_DIR/schema/ldap.ini
DEFAULT_DIR=${QORLDAP_DIR:-/tmp/qorldap-directory}

# --- messages and arguments ----------------------------------------------------------------

say() { printf '%s: %s\n' "$PROG" "$*"; }
die() { printf '%s: %s\n' "$PROG" "$*" >&2; exit 1; }
# die_log LOG MESSAGE: the last lines of LOG on stderr, then dies with MESSAGE.
die_log() {
    { echo "----- last lines of $1 -----"; tail -n 20 "$1"; } >&2 2>/dev/null || true
    die "$2"
}

# need_value "$@": inside an option loop, dies unless the option in $1 has a value after it
# (not the next option).
need_value() { [ $# -ge 2 ] && [[ $2 != --* ]] || die "$1 needs a value"; }

# check_port N: dies unless N is a TCP port number.
check_port() {
    [[ $1 =~ ^[0-9]{1,5}$ ]] && [ "$1" -ge 1 ] && [ "$1" -le 65535 ] || die "bad --port: $1"
}

# check_base DN: dies unless the base DN can go into our configurations and LDIF as it is:
# an attr=value first RDN of a type base_entry_ldif knows, and no character that the quoting of
# slapd.conf (") or the substitutions into the access rules (|, &) would change.
check_base() {
    case $1 in
        *\"* | *$'\n'* | *[\|\&]*) die "--base must not hold double quotes, |, & or newlines" ;;
        *=*) ;;
        *) die "bad --base: $1" ;;
    esac
    base_entry_ldif "$1" >/dev/null
}

# only_with_start CMD FLAG...: dies when CMD is not start and a flag that only start reads is
# given (it would do nothing).
only_with_start() {
    local cmd=$1
    shift
    [ "$cmd" = start ] || [ $# = 0 ] || die "only start takes $*"
}

# --- DIR and its files ---------------------------------------------------------------------

# abs_dir PATH: PATH as an absolute, symlink-free path, the same whichever way it was spelled
# (a running server is recognised by the paths on its command line). Creates nothing.
abs_dir() {
    local d=$1
    case $d in /*) ;; *) d=$PWD/$d ;; esac
    [ -d "$d" ] && d=$(cd "$d" && pwd -P)
    printf '%s\n' "$d"
}

# make_dir DIR: DIR made when missing, and mode 0700 in any case.
make_dir() { mkdir -p "$1" && chmod 700 "$1"; }

# env_line NAME VALUE: a shell assignment, quoted only when the value needs it, so that DIR/env
# stays readable by simple NAME=value parsers as well.
env_line() {
    if [[ $2 =~ ^[A-Za-z0-9_./:=,@%+-]*$ ]]; then
        printf '%s=%s\n' "$1" "$2"
    else
        printf "%s='%s'\n" "$1" "${2//\'/\'\\\'\'}"
    fi
}

# env_value FILE NAME: the value env_line wrote for NAME into FILE; nothing when it is not there.
env_value() {
    local v
    v=$(sed -n "s/^$2=//p" "$1" 2>/dev/null | head -n1) || true
    if [[ $v == \'*\' ]]; then
        v=${v:1:${#v}-2}
        v=${v//\'\\\'\'/\'}
    fi
    printf '%s' "$v"
}

# write_env FILE WRITER NAME=VALUE...: DIR/env, headed by who wrote it and how to use it.
write_env() {
    local file=$1 writer=$2 pair
    shift 2
    {
        echo "# Written by $writer; use with: set -a; . $file; set +a"
        for pair in "$@"; do env_line "${pair%%=*}" "${pair#*=}"; done
    } >"$file"
}

# print_env DIR START: DIR/env on stdout, or dies naming the command (START) that writes it.
print_env() {
    [ -r "$1/env" ] || die "no $1/env; run: $2"
    cat "$1/env"
}

# write_conf_dir DIR PORT BASE BIND_DN PASSWORD NOTE: DIR/conf/soap.ini, the library binding as
# BIND_DN (managerdn, or bind_dn when it is longer than managerdn's 32 characters) with NOTE
# saying who that is, and DIR/conf/ldap.ini, the shipped one.
write_conf_dir() {
    local dir=$1 port=$2 base=$3 dn=$4 pw=$5 note=$6
    mkdir -p "$dir/conf"
    {
        echo "; Written by scripts/$PROG for the server in $dir"
        echo "[ldap]"
        echo "host=127.0.0.1"
        echo "port=$port"
        echo "basedn=$base"
        echo "; $note"
        if [ ${#dn} -le 32 ]; then
            echo "managerdn=$dn"
        else
            echo "; Longer than managerdn's 32 characters, so it goes into bind_dn."
            echo "bind_dn=$dn"
        fi
        echo "psw=$pw"
    } >"$dir/conf/soap.ini"
    cp "$LDAP_INI" "$dir/conf/ldap.ini"
}

# base_entry_ldif BASE: the base entry, its class chosen by the type of its first RDN.
base_entry_ldif() {
    local rdn attr value
    # First RDN of the base: attr=value up to the first unescaped comma.
    rdn=$(printf '%s' "$1" | sed -E 's/^(([^,\\]|\\.)*).*/\1/')
    attr=$(printf '%s' "${rdn%%=*}" | tr '[:upper:]' '[:lower:]' | tr -d ' ')
    value=$(printf '%s' "${rdn#*=}" | sed -E 's/\\(.)/\1/g')
    [[ $rdn == *+* ]] && die "--base: multi-valued RDN not supported: $rdn"
    printf 'dn: %s\n' "$1"
    case $attr in
        o)  printf 'objectClass: organization\no: %s\n' "$value" ;;
        dc) printf 'objectClass: dcObject\nobjectClass: organization\ndc: %s\no: %s\n' "$value" "$value" ;;
        ou) printf 'objectClass: organizationalUnit\nou: %s\n' "$value" ;;
        c)  printf 'objectClass: country\nc: %s\n' "$value" ;;
        cn) printf 'objectClass: qorPerson\ncn: %s\n' "$value" ;;
        *)  die "--base: do not know which objectClass fits $attr=" ;;
    esac
}

# Percent-encodes a path for an ldapi:// URL.
urlencode() {
    local LC_ALL=C s=$1 out="" c i
    for ((i = 0; i < ${#s}; i++)); do
        c=${s:i:1}
        case $c in
            [A-Za-z0-9._~-]) out+=$c ;;
            *) out+=$(printf '%%%02X' "'$c") ;;
        esac
    done
    printf '%s' "$out"
}

# --- processes -----------------------------------------------------------------------------

# pid_of PIDFILE [ARG...]: the pid PIDFILE names when that process runs and, with ARGs, has one
# of them as an argument where /proc shows it (a pid file left behind may name a recycled
# pid); else fails.
pid_of() {
    local file=$1 pid
    shift
    pid=$(head -n1 "$file" 2>/dev/null | tr -dc '0-9') || true
    [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null || return 1
    if [ $# -gt 0 ] && [ -r "/proc/$pid/cmdline" ]; then
        local a args=()
        for a in "$@"; do args+=(-e "$a"); done
        tr '\0' '\n' <"/proc/$pid/cmdline" | grep -qxF "${args[@]}" || return 1
    fi
    printf '%s\n' "$pid"
}

# wait_until TENTHS COMMAND...: runs COMMAND every tenth of a second until it succeeds (0) or
# TENTHS tenths have passed (1).
wait_until() {
    local i n=$1
    shift
    for ((i = 0; i < n; i++)); do
        "$@" && return 0
        sleep 0.1
    done
    "$@"
}

gone() { ! kill -0 "$1" 2>/dev/null; }

# kill_pid PID NAME: SIGKILL, back once the process is gone (2 s at most).
kill_pid() {
    kill -KILL "$1" 2>/dev/null || true
    wait_until 20 gone "$1" || die "$2 (pid $1) survived SIGKILL"
}

# stop_pid PID NAME SECONDS: TERM, up to SECONDS for the process to end, then KILL; says which.
stop_pid() {
    kill -TERM "$1" 2>/dev/null || true
    if wait_until $(($3 * 10)) gone "$1"; then
        say "stopped $2 (pid $1)"
    else
        kill_pid "$1" "$2"
        say "$2 (pid $1) did not stop within $3 s; killed"
    fi
}

# report_status PID DIR [DETAIL]: "running on URI (pid PID)DETAIL, dir DIR" and 0 for a PID,
# "not running (dir DIR)" and 1 for none.
report_status() {
    local uri
    if [ -n "$1" ]; then
        uri=$(env_value "$2/env" LDAP_URI)
        say "running on ${uri:-?} (pid $1)${3:-}, dir $2"
        return 0
    fi
    say "not running (dir $2)"
    return 1
}

# --- ports ---------------------------------------------------------------------------------

port_in_use() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# pick_port: a free TCP port on 127.0.0.1, as the kernel hands one out (python3), else a random
# one that nothing answers on.
pick_port() {
    local p tries
    if command -v python3 >/dev/null 2>&1 &&
        p=$(python3 -c 'import socket
s = socket.socket()
s.bind(("127.0.0.1", 0))
print(s.getsockname()[1])
s.close()' 2>/dev/null) && [ -n "$p" ]; then
        printf '%s\n' "$p"
        return 0
    fi
    for ((tries = 0; tries < 50; tries++)); do
        p=$((20000 + RANDOM % 40000))
        port_in_use "$p" || { printf '%s\n' "$p"; return 0; }
    done
    return 1
}

# answers PORT: a root DSE search on 127.0.0.1:PORT is answered within a second.
answers() {
    ldapsearch -x -LLL -o nettimeout=1 -H "ldap://127.0.0.1:$1" -b "" -s base \
        '(objectClass=*)' namingContexts >/dev/null 2>&1
}

# --- layouts -------------------------------------------------------------------------------

# ds_instance_name DIR: the name of DIR's 389 instance (DIR absolute, as abs_dir gives it), so
# that two DIRs never share one.
ds_instance_name() { printf 'qor%s\n' "$(printf '%s' "$1" | sha256sum | cut -c1-8)"; }

# layout_running DIR: the layout whose server runs from DIR (slapd, 389ds or providers, their
# consumers included), else nothing (and fails).
layout_running() {
    local d=$1
    if pid_of "$d/slapd.pid" "$d/slapd.conf" "$d/slapd.d" >/dev/null; then
        echo slapd
    elif pid_of "$d/ds/run/slapd.pid" "$d/ds/slapd-$(ds_instance_name "$d")" "$d/ds/config" >/dev/null; then
        echo 389ds
    elif pid_of "$d/1/slapd.pid" "$d/1/slapd.conf" >/dev/null ||
        pid_of "$d/2/slapd.pid" "$d/2/slapd.conf" >/dev/null ||
        pid_of "$d/3/slapd.pid" "$d/3/slapd.conf" >/dev/null ||
        pid_of "$d/4/slapd.pid" "$d/4/slapd.conf" >/dev/null; then
        echo providers
    else
        return 1
    fi
}

# layout_in DIR: the layout that runs from DIR, else the one whose files are there, else nothing.
layout_in() {
    local d=$1
    if layout_running "$d"; then
        return 0
    elif [ -d "$d/ds" ] || grep -qx 'QORLDAP_SERVER=389ds' "$d/env" 2>/dev/null; then
        echo 389ds
    elif [ -r "$d/slapd.conf" ]; then
        echo slapd
    elif [ -r "$d/1/slapd.conf" ] || [ -r "$d/2/slapd.conf" ]; then
        echo providers
    fi
}

# refuse_running DIR: dies when a server of any layout runs from DIR (a start would take its
# files away from under it).
refuse_running() {
    local what
    case $(layout_running "$1") in
        slapd) what="a slapd still runs" ;;
        389ds) what="a 389 Directory Server still runs" ;;
        providers) what="replicated servers still run" ;;
        *) return 0 ;;
    esac
    die "$what from $1; run: scripts/directory stop --dir $1"
}
