#!/usr/bin/env bash
# pairs_test.sh TOOL -- a user's certificate and private key stay a pair in the directory when
# two bulk publications of the same users run at once and when a run is killed half-way.
#
# Each of 60 users has three bundles of the same subject, each with a key pair of its own, in
# A/, B/ and C/. Three rounds: A/ and B/ are published at the same time under the key
# passwords pwA and pwB, then a run over C/ (pwC, in another order each time) is killed with
# SIGKILL after about 0.2, 0.5 or 0.8 s, while it runs. After each step every entry must hold
# one of its user's three certificates and a private key that opens under that set's password
# and has that certificate's public key. Written in two requests, the certificate of one run
# ended up next to the key of the other or of an earlier run, while every run reported success.
# The last lines: a summary of the entries checked, then "N passed, M failed".
set -uo pipefail

[ $# -eq 1 ] || { echo "usage: pairs_test.sh TOOL" >&2; exit 2; }
. "$(dirname "${BASH_SOURCE[0]}")/harness.sh"

users=60
start_directory --nosync
cd "$tmp" || exit 1
# Whatever a killed run leaves in TMPDIR goes with $tmp.
mkdir A B C certs private seen
export QORLDAP_P12_PASSWORD=bundle-pw TMPDIR=$tmp/private
unset QORLDAP_KEY_PASSWORD QORLDAP_CONF_DIR

# make_bundle SET/NN: user NN's P-256 key, its certificate (PEM, and DER to compare with what
# is stored) and the bundle SET/user-NN.p12.
make_bundle() {
    local set=${1%/*} n=${1#*/}
    local base=certs/$set$n
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout "$base.key" \
        -out "$base.pem" -days 2 -subj "/C=CN/O=Acme/OU=Pairs/CN=user $n" 2>/dev/null &&
        openssl x509 -in "$base.pem" -outform DER -out "$base.der" &&
        openssl pkcs12 -export -inkey "$base.key" -in "$base.pem" -out "$set/user-$n.p12" \
            -passout "pass:$QORLDAP_P12_PASSWORD"
}
export -f make_bundle
for set in A B C; do seq -f "$set/%02g" 1 "$users"; done |
    xargs -P2 -n1 bash -c 'make_bundle "$1"' _ >openssl.log 2>&1
bundles=(A/*.p12 B/*.p12 C/*.p12)
[ ${#bundles[@]} = $((3 * users)) ] || { cat openssl.log; echo "0 passed, 1 failed"; exit 1; }
printf 'made %d bundles in %d s\n' $((3 * users)) "$SECONDS"

# judge_entry NN: "NN SET" when the stored certificate is SET's for user NN and the stored key
# opens under pwSET and has that certificate's public key; else "NN - " and what is wrong.
judge_entry() {
    local n=$1 set other pub cert=stored/$1.cert key=stored/$1.key
    [ -s "$cert" ] || { echo "$n - no certificate"; return; }
    [ -s "$key" ] || { echo "$n - no private key"; return; }
    for set in A B C ""; do
        [ -n "$set" ] && cmp -s "$cert" "certs/$set$n.der" && break
    done
    [ -n "$set" ] || { echo "$n - a certificate of none of the runs"; return; }
    if ! pub=$(openssl pkey -inform DER -in "$key" -passin "pass:pw$set" -pubout 2>/dev/null); then
        for other in A B C; do
            openssl pkey -inform DER -in "$key" -passin "pass:pw$other" -noout 2>/dev/null && break
            other=""
        done
        echo "$n - $set's certificate next to a key under ${other:+pw}${other:-no password of the runs}"
        return
    fi
    [ "$pub" = "$(openssl x509 -inform DER -in "$cert" -pubkey -noout)" ] ||
        { echo "$n - $set's certificate next to a key of another pair under pw$set"; return; }
    echo "$n $set"
}
# verify_entry NN: judge_entry, kept in seen/ with the bytes it judged. An entry that holds the
# same bytes at the next check keeps its verdict, so a check after a short run opens only the
# keys written since; the entries judged afresh are listed in "fresh".
verify_entry() {
    local n=$1
    if ! [ -s "seen/$n.verdict" ] || ! cmp -s "stored/$n.cert" "seen/$n.cert" ||
        ! cmp -s "stored/$n.key" "seen/$n.key"; then
        judge_entry "$n" >"seen/$n.verdict"
        rm -f "seen/$n.cert" "seen/$n.key"
        cp "stored/$n.cert" "stored/$n.key" seen/ 2>/dev/null
        echo "$n" >>fresh
    fi
    cat "seen/$n.verdict"
}
export -f judge_entry verify_entry

checked=0 from_a=0 from_b=0 from_c=0 mismatches=0 raced=0 killed=0
# check_pairs NAME race|kill: reads every user's certificate and key as the rootdn in one
# search, checks each pair, prints the counts and the first mismatches, and counts them into
# the summary under the step that wrote them.
check_pairs() {
    rm -rf stored fresh && mkdir stored && : >fresh
    ldapsearch -x -D "$LDAP_BINDDN" -w "$LDAP_BINDPW" -LLL -o ldif-wrap=no -H "$LDAP_URI" \
        -b "ou=pairs,$LDAP_BASEDN" -s one '(objectClass=*)' 'signPubcer;binary' 'signPrikey;binary' \
        >entries.ldif 2>ldapsearch.err || { fail "$1: the search" "$(cat ldapsearch.err)"; return; }
    awk 'tolower($0) ~ /^dn: cn=user [0-9]+,/ { match($0, /[0-9]+,/); n = substr($0, RSTART, RLENGTH - 1) }
         { name = tolower($1) }
         name == "signpubcer;binary::" { print $2 | ("base64 -d >stored/" n ".cert"); close("base64 -d >stored/" n ".cert") }
         name == "signprikey;binary::" { print $2 | ("base64 -d >stored/" n ".key"); close("base64 -d >stored/" n ".key") }' \
        entries.ldif
    seq -f %02g 1 "$users" | xargs -P2 -n1 bash -c 'verify_entry "$1"' _ | sort >verdicts
    local total a b c bad new
    total=$(wc -l <verdicts) a=$(grep -c ' A$' verdicts) b=$(grep -c ' B$' verdicts)
    c=$(grep -c ' C$' verdicts) bad=$(grep -c ' - ' verdicts)
    new=$(grep ' - ' verdicts | cut -d' ' -f1 | grep -cxFf fresh)
    printf '  %s: %d entries (%d rewritten), %d from A, %d from B, %d from C, %d mismatches (%d new)\n' \
        "$1" "$total" "$(wc -l <fresh)" "$a" "$b" "$c" "$bad" "$new"
    grep ' - ' verdicts | head -5 | sed 's/^/    user /'
    checked=$((checked + total)) from_a=$((from_a + a)) from_b=$((from_b + b))
    from_c=$((from_c + c)) mismatches=$((mismatches + bad))
    [ "$2" = race ] && raced=$((raced + new)) || killed=$((killed + new))
    check "$1: each of $users entries holds a certificate and its own key" test "$total" = "$users" -a "$bad" = 0
}

# A race leaves a broken pair when one run's whole pair goes in between the other run's
# certificate and key: both runs take the users in the same order, so that they meet on each.
# Each round's race puts A's or B's pair back in every entry, so that the run over C/ that is
# killed next finds another pair in the entries it writes: a kill between C's certificate and
# key leaves C's certificate next to A's or B's key.
group "three rounds: A/ and B/ at once, then a run over C/ killed half-way"
delays=(0.2 0.45 0.75)
for round in 1 2 3; do
    started=$SECONDS
    QORLDAP_KEY_PASSWORD=pwA "${detach[@]}" "$tool" --conf "$conf" publish A --jobs 4 >A.out 2>A.err </dev/null &
    run_a=$!
    QORLDAP_KEY_PASSWORD=pwB "${detach[@]}" "$tool" --conf "$conf" publish B --jobs 4 >B.out 2>B.err </dev/null &
    run_b=$!
    wait $run_a
    status_a=$?
    wait $run_b
    status_b=$?
    printf '  round %d: A/ and B/ at once took %d s\n' "$round" $((SECONDS - started))
    for set in A B; do
        # What a failure shows: the run's status, output and errors.
        status=$([ $set = A ] && echo $status_a || echo $status_b)
        cp $set.out "$tmp/out" && cp $set.err "$tmp/err"
        check "round $round: $set/ beside the other, status 0, $users published, 0 failed" \
            test "$status" = 0 -a -n "$(grep "^$users published, 0 failed" $set.out)"
    done
    check_pairs "round $round, after A/ and B/" race

    delay=$(awk -v d="${delays[round - 1]}" -v r=$RANDOM 'BEGIN { printf "%.2f", d + r % 200 / 1000 }')
    shuf -e C/*.p12 >C.list  # another order each time, so each kill finds other users in flight
    QORLDAP_KEY_PASSWORD=pwC "${detach[@]}" "$tool" --conf "$conf" publish - --jobs 4 <C.list >C.out 2>C.err &
    run_c=$!
    sleep "$delay"
    # setsid made the run the leader of a process group of its own: the whole group dies, and
    # nothing of it goes on writing.
    if [ "$(ps -o pgid= -p $run_c | tr -d ' ')" = "$run_c" ]; then
        kill -KILL -- "-$run_c"
        wait $run_c 2>/dev/null  # without bash's own "Killed" line
        status=$?
    else
        wait $run_c
        status=$?
        [ "$status" = 0 ] || fail "round $round: a run over C/ to kill" "it was not running in its own group"
    fi
    [ "$status" = 137 ] || printf '  round %d: the run over C/ ended before the kill (status %s)\n' "$round" "$status"
    check_pairs "round $round, C/ killed after $delay s" kill
done

echo
printf 'pairs: %d entries checked, %d from A, %d from B, %d from C, %d mismatches' \
    "$checked" "$from_a" "$from_b" "$from_c" "$mismatches"
printf ' (%d made by the races, %d by the kills), %d s\n' "$raced" "$killed" "$SECONDS"
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
