#!/usr/bin/env bash
# A private CUPS for one test: its own configuration, spool and logs under a folder of the test's, a
# scheduler on a Unix socket there (<folder>/cups.sock, for CUPS_SERVER) and one virtual PDF printer, the
# default, whose PDFs land in <folder>/pdf/. cups-pdf reads its configuration from /etc/cups only, so the
# printer's own file there is named after the folder and removed again on stop.
#   cups_instance.sh start <folder> <printer>   (as root; prints READY once the printer takes jobs)
#   cups_instance.sh stop <folder>
set -euo pipefail
command=$1 folder=$(realpath -m "$2")
conf=$folder/conf
instance=velmar$(printf '%s' "$folder" | md5sum | cut -c1-12)

if [ "$command" = stop ]; then
    if [ -s "$folder/cupsd.pid" ]; then
        pid=$(cat "$folder/cupsd.pid")
        kill "$pid" 2>/dev/null || true
        for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
        kill -9 "$pid" 2>/dev/null || true
    fi
    rm -f "/etc/cups/cups-pdf-$instance.conf"
    exit 0
fi

printer=$3
mkdir -p "$conf" "$folder"/{spool,cache,state,log,tmp,pdf}
# Filters run as lp: they read the spool and write the temporary files.
chgrp lp "$folder"/{spool,tmp} && chmod 0770 "$folder"/{spool,tmp}
chmod 0711 "$folder"
cat >"$conf/cupsd.conf" <<CONF
Listen $folder/cups.sock
LogLevel warn
WebInterface No
Browsing No
DefaultAuthType None
<Location />
  Order allow,deny
  Allow all
</Location>
<Policy default>
  <Limit All>
    Order deny,allow
  </Limit>
</Policy>
CONF
cat >"$conf/cups-files.conf" <<CONF
ServerRoot $conf
RequestRoot $folder/spool
CacheDir $folder/cache
StateDir $folder/state
TempDir $folder/tmp
AccessLog $folder/log/access_log
ErrorLog $folder/log/error_log
PageLog $folder/log/page_log
ServerBin /usr/lib/cups
DataDir /usr/share/cups
Sandboxing Relaxed
CONF
cat >"/etc/cups/cups-pdf-$instance.conf" <<CONF
Out $folder/pdf
AnonDirName $folder/pdf
Grp root
CONF

cupsd -f -c "$conf/cupsd.conf" -s "$conf/cups-files.conf" >"$folder/log/cupsd.out" 2>&1 &
echo $! >"$folder/cupsd.pid"
export CUPS_SERVER=$folder/cups.sock
for _ in $(seq 100); do
    lpstat -r 2>/dev/null | grep -q 'is running' && break
    sleep 0.1
done
# The PostScript step renders through cairo, which keeps the text of the PDF readable (poppler's and
# Ghostscript's PostScript lose the fonts' Unicode mapping).
lpadmin -p "$printer" -E -v "cups-pdf:/$instance" -P /usr/share/ppd/cups-pdf/CUPS-PDF_noopt.ppd \
    -o pdftops-renderer-default=pdftocairo 2>/dev/null
lpadmin -d "$printer"
lpstat -p "$printer" | grep -q enabled && echo READY
