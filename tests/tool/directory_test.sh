#!/usr/bin/env bash
# directory_test.sh -- the throwaway directories of scripts/directory and qorldap-prepare, from
# outside: who may read and bind what a directory leaves in DIR, whether stop and status find
# the layout that runs there (one slapd, two providers, with or without two read-only consumers,
# 389), that the consumers follow the providers and refuse writes, that no start takes a DIR from
# under a running server, that every option does something or is refused, what --keep brings
# back, and what qorldap-prepare counts and says when the server dies under it.
set -uo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/harness.sh" "$0"
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
prepare=$project/scripts/qorldap-prepare
trap 'for d in dir pair topo d389 none keep; do "$directory" stop --dir "$tmp/$d" >/dev/null 2>&1; done
      rm -rf "$tmp"' EXIT
# The folder above each DIR lets everybody through, so only DIR's own modes protect it.
chmod 755 "$tmp"
mode() { stat -c %a "$1"; }
modes() { local f out=""; for f in "$@"; do out+="$(mode "$f") "; done; printf '%s' "${out% }"; }
# says STATUS TEXT COMMAND...: the command exits with STATUS and says TEXT (on either stream).
says() { local want=$1 text=$2 out rc; shift 2; out=$("$@" 2>&1); rc=$?; [ "$rc" = "$want" ] && [[ $out == *"$text"* ]]; }
pid_in() { head -n1 "$1" 2>/dev/null | tr -dc '0-9'; }
# var DIR NAME: a variable of DIR/env.
var() { sed -n "s/^$2=//p" "$1/env"; }
as_nobody=0
[ "$(id -u)" = 0 ] && command -v runuser >/dev/null 2>&1 && as_nobody=1
have_389=0
[ "$(id -u)" = 0 ] && command -v ns-slapd >/dev/null 2>&1 && have_389=1

group "one slapd: modes, the socket, stop and status from DIR"
start_directory --nosync
d=$tmp/dir
check "DIR 0700; env, soap.ini, ldap.ini and slapd.conf 0600; the socket 0600" \
    test "$(modes "$d" "$d/env" "$d/conf/soap.ini" "$d/conf/ldap.ini" "$d/slapd.conf" "$d/ldapi")" = "700 600 600 600 600 600"
if [ "$as_nobody" = 1 ]; then
    check "another local user reads neither env nor soap.ini" \
        eval '! runuser -u nobody -- cat "$d/env" "$d/conf/soap.ini" >/dev/null 2>&1'
    check "another local user cannot bind over the socket" \
        eval '! runuser -u nobody -- ldapwhoami -Q -Y EXTERNAL -H "$LDAP_LDAPI_URI" >/dev/null 2>&1'
fi
check "the owner binds over the socket" eval 'ldapwhoami -Q -Y EXTERNAL -H "$LDAP_LDAPI_URI" >/dev/null 2>&1'
# The throwaway directory runs the shipped rules with add-content checks on: the key service
# (whose identity the library binds as in every test) cannot add an account of its choosing.
check "the key service cannot add a uid 0 account with a password (50)" eval '
    printf "dn: cn=root0,%s\nobjectClass: qorPerson\nobjectClass: posixAccount\ncn: root0\nuid: root0\nuidNumber: 0\ngidNumber: 0\nhomeDirectory: /root\nuserPassword: x\n" "$LDAP_BASEDN" |
        ldapadd -x -H "$LDAP_URI" -D "$QORLDAP_SERVICE_DN" -w "$QORLDAP_SERVICE_PW" >/dev/null 2>&1; test $? = 50'
check "status --server 389ds is refused: slapd runs there" \
    says 1 "holds slapd" "$directory" status --server 389ds --dir "$d"
check "status says it runs" says 0 "running on $LDAP_URI" "$directory" status --dir "$d"
pid=$(pid_in "$d/slapd.pid")
layouts=("--providers 2")
[ "$have_389" = 1 ] && layouts+=("--server 389ds")
for layout in "${layouts[@]}"; do
    # shellcheck disable=SC2086 # the layout's option and its value
    check "start $layout over it is refused" \
        says 1 "a slapd still runs from $d" "$directory" start $layout --dir "$d" --nosync
done
check "and it runs on with its files" \
    eval '"$directory" status --dir "$d" >/dev/null && test "$(pid_in "$d/slapd.pid")" = "$pid" -a -r "$d/env"'

group "every option does something or is refused"
rows=("stop --nosync|only start takes --nosync" "status --port 389|only start takes --port"
    "env --base o=x|only start takes --base" "status --server 389ds --nosync|only start takes --nosync"
    "start --keep --nosync|no other start option goes with it"
    "start --server-id 1|--server-id and --peer go together"
    "start --peer ldap://127.0.0.1:1|--server-id and --peer go together"
    "start --base o=a&b|must not hold double quotes, |, & or newlines"
    "start --providers 3|only 2 is supported" "stop --providers 3|only 2 is supported"
    "start --server 1 --nosync|--nosync goes with start --providers 2 only"
    "status --server 5|unknown --server: 5"
    "start --consumers 2|start: --providers 2 [--consumers 2]"
    "start --providers 2 --consumers 1|--consumers: only 2 is supported"
    "start --server 389ds --providers 2|--server 389ds and --providers name different layouts"
    "populate --server 389ds --users 1 --units 1|--server 389ds and populate name different layouts"
    "populate --users --units 1|--users needs a value")
for row in "${rows[@]}"; do
    read -ra words <<<"${row%%|*}"
    check "${row%%|*}: ${row#*|}" says 1 "${row#*|}" "$directory" "${words[@]}" --dir "$tmp/none"
done

group "--keep starts DIR again as it was: its ldaps listener, a schema loaded into cn=config"
k=$tmp/keep
# started OPTIONS...: DIR k started afresh; again: stopped and started with --keep. Each fails
# the group's checks when it does not work.
started() { "$directory" start --dir "$k" "$@" >"$tmp/out" 2>&1 || { fail "start $*" "$(tail -n 5 "$tmp/out")"; false; }; }
again() {
    "$directory" stop --dir "$k" >/dev/null && "$directory" start --dir "$k" --keep >"$tmp/out" 2>&1 ||
        { fail "start --keep" "$(tail -n 5 "$tmp/out")"; false; }
}
# LDAPNOINIT would keep LDAPTLS_CACERT away too.
started --nosync --tls && again &&
    check "the ldaps port answers again" eval 'env -u LDAPNOINIT LDAPTLS_CACERT="$k/tls/ca.crt" LDAPTLS_REQCERT=demand \
        ldapwhoami -x -H "$(var "$k" LDAPS_URI)" -D "$(var "$k" LDAP_BINDDN)" -w "$(var "$k" LDAP_BINDPW)" >/dev/null 2>&1'
"$directory" stop --dir "$k" >/dev/null
if started --nosync --bare; then
    ldapi=$(var "$k" LDAP_LDAPI_URI)
    ldapadd -Q -Y EXTERNAL -H "$ldapi" -f "$project/schema/qorldap.ldif" >/dev/null 2>&1 &&
        again && check "the schema loaded online is still there" eval 'ldapsearch -Q -LLL -Y EXTERNAL -H "$ldapi" \
            -b cn=schema,cn=config "(cn=*qorldap)" dn 2>/dev/null | grep -q "^dn:"'
fi
"$directory" stop --dir "$k" >/dev/null

group "qorldap-prepare: the password stays off the command line, DNs print as text"
people=ou=People,$LDAP_BASEDN
admin=(-x -H "$LDAP_URI" -D "$LDAP_BINDDN" -w "$LDAP_BINDPW")
{
    printf 'dn: %s\nobjectClass: organizationalUnit\nou: People\n\n' "$people"
    printf 'dn: cn=Lǐ Léi,%s\nobjectClass: inetOrgPerson\ncn: Lǐ Léi\nsn: Li\n\n' "$people"
    for ((i = 0; i < 6000; i++)); do
        printf 'dn: cn=p%d,%s\nobjectClass: inetOrgPerson\ncn: p%d\nsn: p\n\n' "$i" "$people" "$i"
    done
} | ldapadd "${admin[@]}" >/dev/null
export LDAP_URI LDAP_BINDDN LDAP_BINDPW
check "-w is refused (exit 2) with a pointer to -y" says 2 "give -y FILE" "$prepare" -w "$LDAP_BINDPW" "$people"
printf '%s' "$LDAP_BINDPW" >"$tmp/admin.pw"
check "-y FILE binds" says 0 "would give qorKeyHolder to 1 entry" env -u LDAP_BINDPW "$prepare" -y "$tmp/admin.pw" "$people"
"$prepare" --subtree --filter '(sn=Li)' "$people" >"$tmp/out" 2>&1
check "the dry run prints a DN the server sends in base64 as text" grep -qxF "  cn=Lǐ Léi,$people" "$tmp/out"

group "qorldap-prepare: slapd killed during --apply"
"$prepare" --subtree --filter '(sn=p)' --apply "$people" >"$tmp/out" 2>"$tmp/err" &
run_pid=$!
for ((i = 0; i < 3000; i++)); do
    grep -q "1000 of 6000" "$tmp/err" 2>/dev/null && break
    sleep 0.01
done
kill -KILL "$(pid_in "$d/slapd.pid")"
wait "$run_pid"
check "the run ends in failure" test $? = 1
reported=$(sed -n 's/.*gave qorKeyHolder to \([0-9]*\) entr.*/\1/p' "$tmp/out")
unconfirmed=$(sed -n 's/.*, \([0-9]*\) failed.*/\1/p' "$tmp/out")
"$directory" start --dir "$d" --keep >/dev/null
applied=$(ldapsearch "${admin[@]}" -LLL -b "$people" '(objectClass=qorKeyHolder)' 1.1 | grep -c '^dn:')
echo "reported $reported, applied $applied, unconfirmed $unconfirmed of 6000"
check "the kill came in the middle of the run" test "${unconfirmed:-0}" -gt 0 -a "${reported:-0}" -gt 0
# The request in flight may have been applied without an answer: it is not counted.
check "only what the server confirmed is counted" test "${reported:-x}" -le "$applied" -a "$applied" -le "$((${reported:-0} + 1))"
check "the first entry not confirmed is named with the server's reason, the rest counted" \
    eval 'grep -q "failed: cn=p[0-9]*,$people: Can.t contact LDAP server (-1)" "$tmp/err" &&
          grep -q "$((unconfirmed - 1)) more entries not confirmed" "$tmp/err"'
check "a second run finishes the rest" says 0 "gave qorKeyHolder to $((6000 - applied)) entries ($applied already done, 0 failed)" \
    "$prepare" --subtree --filter "(sn=p)" --apply "$people"
"$directory" stop --dir "$d" >/dev/null

group "two providers: modes, stop and status from DIR"
p=$tmp/pair
if "$directory" start --providers 2 --dir "$p" --nosync >"$tmp/out" 2>&1; then
    check "DIR and each provider's folder 0700; env and soap.ini 0600; the sockets 0600" \
        test "$(modes "$p" "$p/1" "$p/2" "$p/env" "$p/conf/soap.ini" "$p/1/env" "$p/2/conf/soap.ini" "$p/1/ldapi" "$p/2/ldapi")" = "700 700 700 600 600 600 600 600 600"
    check "status shows both" eval '"$directory" status --dir "$p" >"$tmp/out" && test "$(grep -c "running on" "$tmp/out")" = 2'
    check "no consumers unless asked: kill --server 3 is refused" \
        says 1 "no consumer 3 in $p" "$directory" kill --server 3 --dir "$p"
    pids="$(pid_in "$p/1/slapd.pid") $(pid_in "$p/2/slapd.pid")"
    "$directory" stop --dir "$p" >/dev/null
    check "stop stops both" eval '! kill -0 $pids 2>/dev/null'
else
    fail "the providers did not start" "$(tail -n 5 "$tmp/out")"
fi

group "two providers and two consumers: modes, replication, refused writes, kill and start"
c=$tmp/topo
if "$directory" start --providers 2 --consumers 2 --dir "$c" --nosync >"$tmp/out" 2>&1; then
    check "each consumer's folder 0700; its env and soap.ini 0600; its socket 0600" \
        test "$(modes "$c/3" "$c/4" "$c/3/env" "$c/4/conf/soap.ini" "$c/3/ldapi" "$c/4/ldapi")" = "700 700 600 600 600 600"
    for n in 1 2 3 4; do port[n]=$(var "$c" "LDAP_PORT_$n"); done
    check "soap.ini: the providers in host, the consumers in read_host; env: every server's URI" \
        eval 'grep -qx "host=127.0.0.1:${port[1]} 127.0.0.1:${port[2]}" "$c/conf/soap.ini" &&
              grep -qx "read_host=127.0.0.1:${port[3]} 127.0.0.1:${port[4]}" "$c/conf/soap.ini" &&
              test "$(var "$c" LDAP_URI_4)" = "ldap://127.0.0.1:${port[4]}" -a "$(var "$c" LDAP_URI_3)" = "$(var "$c/3" LDAP_URI)"'
    check "status shows all four" eval '"$directory" status --dir "$c" >"$tmp/out" && test "$(grep -c "running on" "$tmp/out")" = 4'
    services=$(var "$c" QORLDAP_SERVICES)
    as_admin=(-x -D "$(var "$c" LDAP_BINDDN)" -w "$(var "$c" LDAP_BINDPW)")
    as_service=(-x -D "$(var "$c" QORLDAP_SERVICE_DN)" -w "$(var "$c" QORLDAP_SERVICE_PW)")
    # mark N TEXT [BIND...]: TEXT as ou=services' description, written on server N.
    mark() {
        local n=$1 text=$2 bind
        shift 2
        bind=("$@")
        [ $# -gt 0 ] || bind=("${as_admin[@]}")
        printf 'dn: %s\nchangetype: modify\nreplace: description\ndescription: %s\n' "$services" "$text" |
            ldapmodify "${bind[@]}" -H "ldap://127.0.0.1:${port[n]}" >"$tmp/mark.out" 2>&1
    }
    # marked N TEXT: server N holds TEXT (read as the key service, over its own port).
    marked() {
        ldapsearch "${as_service[@]}" -LLL -o ldif-wrap=no -H "ldap://127.0.0.1:${port[$1]}" -b "$services" \
            -s base description 2>/dev/null | grep -qxF "description: $2"
    }
    # within N TEXT: server N holds TEXT within 10 s.
    within() { local i; for ((i = 0; i < 100; i++)); do marked "$@" && return 0; sleep 0.1; done; false; }
    # everywhere TEXT: every server holds TEXT within 10 s.
    everywhere() { local n; for n in 1 2 3 4; do within "$n" "$1" || return 1; done; }
    mark 1 "from provider 1"
    check "a write on provider 1 reaches both consumers" eval 'within 3 "from provider 1" && within 4 "from provider 1"'
    check "a consumer refuses the key service's write (53, no referral)" \
        eval '! mark 3 "on consumer 3" "${as_service[@]}" && grep -q "unwilling to perform (53)" "$tmp/mark.out"'
    check "and the rootdn's (53)" eval '! mark 4 "on consumer 4" && grep -q "(53)" "$tmp/mark.out"'
    check "the refused writes changed nothing anywhere" everywhere "from provider 1"
    # Consumer 3 follows provider 1 alone: with both down it can only show what it kept.
    "$directory" kill --server 3 --dir "$c" >/dev/null
    mark 1 "while consumer 3 was down"
    within 4 "while consumer 3 was down"
    "$directory" kill --server 1 --dir "$c" >/dev/null
    mark 2 "while provider 1 was down"
    check "consumer 4 follows provider 2 while provider 1 is down" within 4 "while provider 1 was down"
    "$directory" start --server 3 --dir "$c" >"$tmp/out" 2>&1
    check "consumer 3 started again (its provider down) keeps its data" \
        eval 'ldapsearch "${as_admin[@]}" -LLL -H "ldap://127.0.0.1:${port[3]}" -b "$(var "$c" QORLDAP_SERVICE_DN)" -s base 1.1 | grep -q "^dn:" &&
              marked 3 "from provider 1"'
    "$directory" start --server 1 --dir "$c" >/dev/null
    check "and catches up once provider 1 is back with what provider 2 took meanwhile" \
        within 3 "while provider 1 was down"
    "$directory" kill --server 4 --dir "$c" >/dev/null
    mark 2 "while consumer 4 was down"
    "$directory" start --server 4 --dir "$c" >/dev/null
    check "consumer 4 killed and started again catches up" within 4 "while consumer 4 was down"
    "$directory" kill --server 2 --dir "$c" >/dev/null
    mark 1 "while provider 2 was down"
    check "consumer 4 follows provider 1 while provider 2 is down" within 4 "while provider 2 was down"
    "$directory" start --server 2 --dir "$c" >/dev/null
    check "once provider 2 is back every server holds the last write" \
        everywhere "while provider 2 was down"
    check "status --server 3 shows consumer 3 alone" \
        eval '"$directory" status --server 3 --dir "$c" >"$tmp/out" && test "$(grep -c "running on" "$tmp/out")" = 1 && grep -q "dir $c/3\$" "$tmp/out"'
    check "env --server 4 gives consumer 4's own" eval '"$directory" env --server 4 --dir "$c" | grep -qx "LDAP_PORT=${port[4]}"'
    check "start over it is refused" says 1 "replicated servers still run from $c" "$directory" start --dir "$c" --nosync
    pids="$(pid_in "$c/1/slapd.pid") $(pid_in "$c/2/slapd.pid") $(pid_in "$c/3/slapd.pid") $(pid_in "$c/4/slapd.pid")"
    "$directory" stop --dir "$c" >/dev/null
    check "stop stops all four" eval '! kill -0 $pids 2>/dev/null'
else
    fail "the providers and consumers did not start" "$(tail -n 5 "$tmp/out")"
fi

group "389 Directory Server: its own name, modes, stop and status from DIR"
if [ "$(id -u)" = 0 ] && command -v ns-slapd >/dev/null 2>&1; then
    d=$tmp/d389
    if "$directory" start --server 389ds --dir "$d" --nosync >"$tmp/out" 2>&1; then
        name=$(sed -n 's/.*Directory Server \(qor[0-9a-f]*\) on.*/\1/p' "$tmp/out")
        uri=$(sed -n 's/^LDAP_LDAPI_URI=//p' "$d/env")
        check "ns-slapd runs under the instance's name (its statistics semaphore carries it)" \
            test -n "$name" -a -e "/dev/shm/sem.slapd-$name.stats"
        check "DIR 0700; env and soap.ini 0600; the socket 0600" \
            test "$(modes "$d" "$d/env" "$d/conf/soap.ini" "$d/ds/run/ldapi")" = "700 600 600 600"
        [ "$as_nobody" = 1 ] && check "another local user cannot reach the socket" \
            eval '! runuser -u nobody -- ldapwhoami -x -H "$uri" >/dev/null 2>&1'
        check "status without --server finds it" says 0 "instance $name" "$directory" status --dir "$d"
        check "and with --server 389ds" says 0 "instance $name" "$directory" status --server 389ds --dir "$d"
        pid=$(pid_in "$d/ds/run/slapd.pid")
        "$directory" stop --dir "$d" >"$tmp/out" 2>&1
        check "stop without --server stops it" eval 'grep -q "stopped ns-slapd" "$tmp/out" && ! kill -0 "$pid" 2>/dev/null'
        check "and removes its semaphore" test ! -e "/dev/shm/sem.slapd-$name.stats"
        check "status says it no longer runs" eval '! "$directory" status --dir "$d" >/dev/null'
    else
        fail "389 Directory Server did not start" "$(tail -n 5 "$tmp/out")"
    fi
fi

echo
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
