#!/usr/bin/python3
"""A real SMTP server for the tests, on 127.0.0.1: aiosmtpd with STARTTLS or TLS from the first byte, AUTH,
and faults injected from a control file that is read again at every command.

Run with Debian's /usr/bin/python3 (python3-aiosmtpd). Prints "READY <port>" once it listens; stops cleanly
on SIGTERM or SIGINT.

Options:
  --port N              listen on N (default 0: a free port, the one printed)
  --spool DIR           each accepted message becomes DIR/<n>.eml (the data as received) and DIR/<n>.json
                        ({"mail_from", "rcpt_tos", "tls", "auth_user" (empty: nobody logged on),
                        "dropped"}), each renamed into place whole, the .eml first; numbering goes on
                        after what DIR holds already
  --tls-dir DIR         a self-signed certificate for localhost and 127.0.0.1 made there (cert.pem,
                        key.pem) with openssl, kept when it exists; offered with STARTTLS
  --require-starttls    refuse everything but EHLO, NOOP, QUIT and STARTTLS before STARTTLS
  --smtps               TLS from the first byte instead of STARTTLS (needs --tls-dir)
  --auth USER:PASSWORD  offer AUTH PLAIN and LOGIN; other credentials get 535, MAIL FROM before AUTH 530

Control file (--control FILE; JSON; a missing or unreadable file means no faults):
  {"rcpt": {"bad@x.example": "550 5.1.1 No such user"},   replies to RCPT TO for these addresses
   "mail": "421 4.3.2 Not now",                            reply to MAIL FROM
   "data": "452 4.3.1 Insufficient storage",               reply to the end of the data (nothing kept)
   "drop_after_data": true,                                close the connection instead of replying to
                                                           the data; the message is kept, marked dropped
   "stall_data_seconds": 30}                               wait this long before replying to the data
"""
import argparse
import asyncio
import json
import logging
import os
import re
import signal
import socket
import ssl
import subprocess
import sys
import threading
import warnings

from aiosmtpd.controller import Controller
from aiosmtpd.smtp import AuthResult, LoginPassword


def read_control(path):
    if not path:
        return {}
    try:
        with open(path, encoding="utf-8") as control:
            faults = json.load(control)
    except (OSError, ValueError):
        return {}
    return faults if isinstance(faults, dict) else {}


def make_certificate(folder):
    cert = os.path.join(folder, "cert.pem")
    key = os.path.join(folder, "key.pem")
    if not (os.path.exists(cert) and os.path.exists(key)):
        os.makedirs(folder, exist_ok=True)
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                        "-keyout", key, "-out", cert, "-subj", "/CN=localhost",
                        "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1"],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    context.load_cert_chain(cert, key)
    return context


def write_whole(path, data):
    """Writes data to path under a temporary name and renames it, so a reader never sees half a file."""
    part = path + ".part"
    with open(part, "wb") as out:
        out.write(data)
    os.rename(part, path)


class Handler:
    def __init__(self, spool, control):
        self.spool = spool
        self.control = control
        self.lock = threading.Lock()
        self.count = 0
        if spool:
            # A server started again on the same spool goes on numbering after what is there.
            numbers = [int(m.group(1)) for m in map(re.compile(r"^(\d+)\.json$").match, os.listdir(spool)) if m]
            self.count = max(numbers, default=0)

    def keep(self, server, session, envelope, dropped):
        if not self.spool:
            return
        with self.lock:
            self.count += 1
            base = os.path.join(self.spool, "%06d" % self.count)
        write_whole(base + ".eml", envelope.original_content or b"")
        facts = {"mail_from": envelope.mail_from, "rcpt_tos": envelope.rcpt_tos,
                 "tls": server.transport is not None and server.transport.get_extra_info("ssl_object") is not None,
                 "auth_user": self.user_of(session), "dropped": dropped}
        write_whole(base + ".json", json.dumps(facts).encode("utf-8"))

    @staticmethod
    def user_of(session):
        data = getattr(session, "auth_data", None)
        if isinstance(data, LoginPassword):
            return data.login.decode("utf-8", "replace")
        return ""

    async def handle_MAIL(self, server, session, envelope, address, options):
        reply = read_control(self.control).get("mail")
        if reply:
            return reply
        envelope.mail_from = address
        envelope.mail_options.extend(options)
        return "250 2.1.0 OK"

    async def handle_RCPT(self, server, session, envelope, address, options):
        reply = read_control(self.control).get("rcpt", {}).get(address)
        if reply:
            return reply
        envelope.rcpt_tos.append(address)
        envelope.rcpt_options.extend(options)
        return "250 2.1.5 OK"

    async def handle_DATA(self, server, session, envelope):
        control = read_control(self.control)
        stall = control.get("stall_data_seconds", 0)
        if stall:
            await asyncio.sleep(stall)
        if control.get("drop_after_data"):
            # The client sent it all and hears nothing: it cannot know whether we have it.
            self.keep(server, session, envelope, True)
            server.transport.close()
            return "421 4.4.2 Connection dropped"  # goes nowhere: the connection is closed
        reply = control.get("data")
        if reply:
            return reply
        self.keep(server, session, envelope, False)
        return "250 2.0.0 Accepted"


class Authenticator:
    def __init__(self, user, password):
        self.user = user.encode()
        self.password = password.encode()

    def __call__(self, server, session, envelope, mechanism, auth_data):
        ok = isinstance(auth_data, LoginPassword) and auth_data.login == self.user and \
            auth_data.password == self.password
        return AuthResult(success=ok, handled=False, auth_data=auth_data)


class BoundController(Controller):
    """Serves on a socket bound beforehand, so port 0 means a free port without a race for it."""

    def __init__(self, handler, listening, **kwargs):
        self.listening = listening
        super().__init__(handler, hostname="127.0.0.1", port=listening.getsockname()[1], **kwargs)

    def _create_server(self):
        return self.loop.create_server(self._factory_invoker, sock=self.listening, ssl=self.ssl_context)


def quiet_about_auth_without_tls():
    """AUTH over plain text is what some tests are about; aiosmtpd warns of it twice at every start."""
    warnings.filterwarnings("ignore", message="Requiring AUTH while not requiring TLS")
    logging.getLogger("mail.log").addFilter(
        lambda record: not str(record.msg).startswith("auth_required == True but auth_require_tls == False"))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--spool")
    parser.add_argument("--control")
    parser.add_argument("--tls-dir")
    parser.add_argument("--require-starttls", action="store_true")
    parser.add_argument("--smtps", action="store_true")
    parser.add_argument("--auth", metavar="USER:PASSWORD")
    arguments = parser.parse_args()
    if (arguments.smtps or arguments.require_starttls) and not arguments.tls_dir:
        parser.error("--smtps and --require-starttls need --tls-dir")
    if arguments.spool:
        os.makedirs(arguments.spool, exist_ok=True)

    context = make_certificate(arguments.tls_dir) if arguments.tls_dir else None
    options = {"data_size_limit": 64 * 1024 * 1024, "enable_SMTPUTF8": True,
               # A name of our own: the default looks the machine's name up, which may wait on DNS.
               "server_hostname": "localhost"}
    if arguments.auth:
        quiet_about_auth_without_tls()
        user, password = arguments.auth.split(":", 1)
        options.update(authenticator=Authenticator(user, password), auth_required=True, auth_require_tls=False)
    if context and not arguments.smtps:
        options.update(tls_context=context, require_starttls=arguments.require_starttls)

    listening = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    # Started again on its old port while the old connections linger in TIME_WAIT.
    listening.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listening.bind(("127.0.0.1", arguments.port))
    listening.listen(64)
    controller = BoundController(Handler(arguments.spool, arguments.control), listening,
                                 ssl_context=context if arguments.smtps else None, ready_timeout=20, **options)

    stop = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: stop.set())
    signal.signal(signal.SIGINT, lambda *_: stop.set())
    controller.start()
    print("READY %d" % listening.getsockname()[1], flush=True)
    while not stop.wait(0.2):
        pass
    controller.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
