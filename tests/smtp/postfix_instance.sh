#!/usr/bin/env bash
# A private Postfix for one test: its own configuration, queue and Maildir under a folder of the test's, an
# SMTP listener on a loopback port, and virtual delivery of example.test mail into <folder>/mail/<user>/.
#   postfix_instance.sh start <folder> <port> <user>...   (as root; prints READY once it listens)
#   postfix_instance.sh stop <folder>
# POSTFIX_SASL=inet:127.0.0.1:<port> (a Dovecot's SASL) makes it take mail only from a client that signed in
# through it.
set -euo pipefail
command=$1 folder=$2
conf=$folder/conf

if [ "$command" = stop ]; then
    postfix -c "$conf" stop >/dev/null 2>&1 || true
    # The master ends its children; wait for it, so the folder can go.
    for _ in $(seq 50); do
        [ -s "$folder/queue/pid/master.pid" ] && kill -0 "$(tr -d ' ' <"$folder/queue/pid/master.pid")" 2>/dev/null || exit 0
        sleep 0.1
    done
    kill -9 "$(tr -d ' ' <"$folder/queue/pid/master.pid")" 2>/dev/null || true
    exit 0
fi

port=$3
shift 3
mkdir -p "$conf" "$folder/queue" "$folder/data" "$folder/mail"
chown postfix "$folder/data"
chmod 1777 "$folder/mail"
: >"$conf/vmailbox"
for user in "$@"; do echo "$user@example.test $user/" >>"$conf/vmailbox"; done
cat >"$conf/main.cf" <<CONF
compatibility_level = 3.6
queue_directory = $folder/queue
data_directory = $folder/data
mail_owner = postfix
setgid_group = postdrop
myhostname = postfix.velmar.test
mydomain = velmar.test
mydestination =
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
mynetworks = 127.0.0.0/8
smtpd_relay_restrictions = permit_mynetworks, reject_unauth_destination
virtual_mailbox_domains = example.test
virtual_mailbox_base = $folder/mail
virtual_mailbox_maps = texthash:$conf/vmailbox
virtual_uid_maps = static:65534
virtual_gid_maps = static:65534
virtual_minimum_uid = 1
alias_maps =
alias_database =
smtputf8_enable = no
maillog_file_prefixes = /var, /dev/stdout, $folder
maillog_file = $folder/postfix.log
CONF
if [ -n "${POSTFIX_SASL:-}" ]; then
    cat >>"$conf/main.cf" <<CONF
smtpd_sasl_auth_enable = yes
smtpd_sasl_type = dovecot
smtpd_sasl_path = $POSTFIX_SASL
smtpd_client_restrictions = permit_sasl_authenticated, reject
CONF
fi
cat >"$conf/master.cf" <<CONF
127.0.0.1:$port inet n - n - - smtpd
pickup    unix  n - n 60   1 pickup
cleanup   unix  n - n -    0 cleanup
qmgr      unix  n - n 300  1 qmgr
rewrite   unix  - - n -    - trivial-rewrite
bounce    unix  - - n -    0 bounce
defer     unix  - - n -    0 bounce
trace     unix  - - n -    0 bounce
verify    unix  - - n -    1 verify
flush     unix  n - n 1000? 0 flush
proxymap  unix  - - n -    - proxymap
showq     unix  n - n -    - showq
error     unix  - - n -    - error
retry     unix  - - n -    - error
discard   unix  - - n -    - discard
virtual   unix  - n n -    - virtual
anvil     unix  - - n -    1 anvil
scache    unix  - - n -    1 scache
postlog   unix-dgram n - n - 1 postlogd
CONF
postfix -c "$conf" start >/dev/null
for _ in $(seq 100); do
    if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then echo READY; exit 0; fi
    sleep 0.1
done
echo "Postfix did not listen on $port" >&2
cat "$folder/postfix.log" >&2 2>/dev/null || true
exit 1
