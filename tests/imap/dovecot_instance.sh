#!/usr/bin/env bash
# A private Dovecot for one test: its own configuration, runtime folder, log and mail under a folder of the
# test's, IMAP on a loopback port (STARTTLS offered) and IMAPS on the next one, with a certificate of a
# private CA (<folder>/ca.pem) for the host name "localhost". Users log in with the password "geheim"; each
# has Maildir++ mail in <folder>/mail/<user>/ with INBOX, Sent, Drafts and Trash (special use), owned by
# the mail user "nobody".
#   dovecot_instance.sh start <folder> <port> <user>...   (as root; prints READY once it listens; a folder
#                                                          started before keeps its mail and its CA)
#   dovecot_instance.sh stop <folder>
# DOVECOT_FLAVOUR makes it a server configured as other makers configure theirs:
#   inbox-namespace  personal folders under the inbox ("INBOX." with "."), none marked, none made
#   trimmed          only IMAP4rev1 and LITERAL+ announced (no IDLE, MOVE, UIDPLUS, CONDSTORE, SPECIAL-USE,
#                    NAMESPACE), separator "/", no folders marked or made
#   no-create        as the default, but no folder can be made (the mail folder is not the mail user's)
# DOVECOT_OAUTH2_URL (an RFC 7662 introspection endpoint) makes it take OAuth2 access tokens too, by the SASL
# mechanisms of DOVECOT_OAUTH2_MECHANISMS (default "oauthbearer xoauth2"), and offer its SASL to a Postfix on
# port + 2.
set -euo pipefail
command=$1 folder=$(realpath -m "$2")
conf=$folder/conf

if [ "$command" = stop ]; then
    [ -s "$folder/run/master.pid" ] || exit 0
    master=$(cat "$folder/run/master.pid")
    # The connections go with the server, as when a machine goes down: the master's children (the imap
    # processes among them) outlive a plain stop.
    children=$(pgrep -P "$master" || true)
    kill "$master" 2>/dev/null || true
    for _ in $(seq 50); do kill -0 "$master" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$master" $children 2>/dev/null || true
    rm -f "$folder/run/master.pid"
    exit 0
fi

port=$3
shift 3
flavour=${DOVECOT_FLAVOUR:-standard}
location="maildir:$folder/mail/%u"
namespace='  separator = /
  mailbox Sent {
    special_use = \Sent
  }
  mailbox Drafts {
    special_use = \Drafts
  }
  mailbox Trash {
    special_use = \Trash
  }'
capability=
case $flavour in
standard) ;;
inbox-namespace) namespace='  prefix = INBOX.
  separator = .' ;;
trimmed)
    namespace='  separator = /'
    capability='imap_capability = IMAP4rev1 LITERAL+' ;;
no-create)
    # The server's own files live elsewhere, so that the mail folder itself can be closed to new folders.
    location="$location:INDEX=$folder/index/%u:CONTROL=$folder/control/%u"
    mkdir -p "$folder/index" "$folder/control"
    chown nobody:nogroup "$folder/index" "$folder/control" ;;
*)
    echo "unknown DOVECOT_FLAVOUR $flavour" >&2
    exit 2 ;;
esac
mechanisms='plain login'
oauth2_passdb=
sasl_listener=
if [ -n "${DOVECOT_OAUTH2_URL:-}" ]; then
    oauth2_mechanisms=${DOVECOT_OAUTH2_MECHANISMS:-oauthbearer xoauth2}
    mechanisms="plain login $oauth2_mechanisms"
    oauth2_passdb="passdb {
  driver = oauth2
  mechanisms = $oauth2_mechanisms
  args = $conf/dovecot-oauth2.conf.ext
}"
    sasl_listener="  inet_listener sasl {
    address = 127.0.0.1
    port = $((port + 2))
  }"
fi
mkdir -p "$conf" "$folder/run" "$folder/state" "$folder/mail"
cat >"$conf/dovecot-oauth2.conf.ext" <<CONF
introspection_mode = post
introspection_url = ${DOVECOT_OAUTH2_URL:-}
username_attribute = username
active_attribute = active
active_value = true
force_introspection = yes
CONF
chmod 0755 "$folder" "$folder/mail"
: >"$conf/users"
for user in "$@"; do
    echo "$user:{PLAIN}geheim::::::" >>"$conf/users"
    mkdir -p "$folder/mail/$user"/{cur,new,tmp}
done
chown -R nobody:nogroup "$folder/mail"
if [ "$flavour" = no-create ]; then
    for user in "$@"; do chown root:root "$folder/mail/$user"; done
fi

if [ ! -s "$folder/ca.pem" ]; then
    openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj "/CN=Velmar Test CA" \
        -keyout "$conf/ca.key" -out "$folder/ca.pem" >/dev/null 2>&1
    openssl req -newkey rsa:2048 -nodes -subj "/CN=localhost" -keyout "$conf/server.key" \
        -out "$conf/server.csr" >/dev/null 2>&1
    printf 'subjectAltName=DNS:localhost,IP:127.0.0.1\n' >"$conf/server.ext"
    openssl x509 -req -in "$conf/server.csr" -CA "$folder/ca.pem" -CAkey "$conf/ca.key" -CAcreateserial \
        -days 2 -extfile "$conf/server.ext" -out "$conf/server.pem" >/dev/null 2>&1
fi

cat >"$conf/dovecot.conf" <<CONF
base_dir = $folder/run
state_dir = $folder/state
log_path = $folder/dovecot.log
info_log_path = $folder/dovecot.log
protocols = imap
listen = 127.0.0.1
ssl = yes
ssl_cert = <$conf/server.pem
ssl_key = <$conf/server.key
disable_plaintext_auth = no
auth_mechanisms = $mechanisms
default_internal_user = dovecot
default_login_user = dovenull
first_valid_uid = 1
$oauth2_passdb
passdb {
  driver = passwd-file
  mechanisms = plain login none
  args = scheme=PLAIN $conf/users
}
userdb {
  driver = static
  args = uid=nobody gid=nogroup home=$folder/mail/%u
}
mail_location = $location
$capability
namespace inbox {
  inbox = yes
$namespace
}
stats_writer_socket_path =
protocol imap {
  mail_max_userip_connections = 50
}
service imap-login {
  inet_listener imap {
    address = 127.0.0.1
    port = $port
  }
  inet_listener imaps {
    address = 127.0.0.1
    port = $((port + 1))
    ssl = yes
  }
}
service anvil {
  chroot =
}
service auth {
$sasl_listener
}
service stats {
  inet_listener http {
    port = 0
  }
}
CONF
# A tunnel runs Dovecot's imap program as the mail user, which reads this configuration.
chmod 0755 "$conf"
chmod 0644 "$conf/dovecot.conf" "$conf/users" "$conf/dovecot-oauth2.conf.ext"
dovecot -c "$conf/dovecot.conf"
for _ in $(seq 100); do
    if exec 3<>"/dev/tcp/127.0.0.1/$port" 2>/dev/null; then
        exec 3>&-
        echo READY
        exit 0
    fi
    sleep 0.1
done
cat "$folder/dovecot.log" >&2
exit 1
