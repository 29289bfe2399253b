#!/usr/bin/python3
"""A real SMTP server for the tests, on loopback: aiosmtpd with STARTTLS or TLS from the first byte, AUTH,
and faults injected from a control file that is read again at every command.

Prints "READY <port>" once it listens. Each accepted message is written to the spool folder as <n>.eml
(the data as received) and <n>.json (envelope, TLS, user), each renamed into place whole.

Control file (JSON; missing means no faults):
  {"rcpt": {"bad@x.example": "550 5.1.1 No such user"},   replies to RCPT TO for these addresses
   "mail": "421 4.3.2 Not now",                            reply to MAIL FROM
   "data": "452 4.3.1 Insufficient storage",               reply to the end of the data
   "drop_after_data": true,                                 close the connection instead of replying
   "stall_data_seconds": 30}                                wait this long before replying to the data
"""
import argparse
import asyncio
import json
import os
import signal
import ssl
import subprocess
import sys
import threading
import time

from aiosmtpd.controller import Controller
from aiosmtpd.smtp import AuthResult, LoginPassword, SMTP


def read_control(path):
    if not path:
        return {}
    try:
        with open(path, encoding="utf-8") as control:
            return json.load(control)
    except (OSError, ValueError):
        return {}


def make_certificate(folder):
    cert = os.path.join(folder, "cert.pem")
    key = os.path.join(folder, "key.pem")
    if not os.path.exists(cert):
        os.makedirs(folder, exist_ok=True)
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                        "-keyout", key, "-out", cert, "-subj", "/CN=localhost",
                        "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1"],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    context.load_cert_chain(cert, key)
    return context


class Handler:
    def __init__(self, spool, control):
        self.spool = spool
        self.control = control
        self.count = 0
        self.lock = threading.Lock()

    def write(self, envelope, session, dropped):
        with self.lock:
            self.count += 1
            number = self.count
        base = os.path.join(self.spool, "%06d" % number)
        with open(base + ".eml.part", "wb") as data:
            data.write(envelope.original_content or envelope.content)
        os.rename(base + ".eml.part", base + ".eml")
        facts = {"mail_from": envelope.mail_from, "rcpt_tos": envelope.rcpt_tos,
                 "tls": session.ssl is not None, "auth_user": self.user_of(session), "dropped": dropped}
        with open(base + ".json.part", "w", encoding="utf-8") as meta:
            json.dump(facts, meta)
        os.rename(base + ".json.part", base + ".json")

    @staticmethod
    def user_of(session):
        data = getattr(session, "auth_data", None)
        if isinstance(data, LoginPassword):
            return data.login.decode("utf-8", "replace")
        return None

    async def handle_MAIL(self, server, session, envelope, address, options):
        reply = read_control(self.control).get("mail")
        if reply:
            return reply
        envelope.mail_from = address
        envelope.mail_options.extend(options)
        return "250 OK"

    async def handle_RCPT(self, server, session, envelope, address, options):
        reply = read_control(self.control).get("rcpt", {}).get(address)
        if reply:
            return reply
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, server, session, envelope):
        control = read_control(self.control)
        stall = control.get("stall_data_seconds", 0)
        if stall:
            await asyncio.sleep(stall)
        if control.get("drop_after_data"):
            self.write(envelope, session, True)
            server.transport.close()
            return "421 closing"
        reply = control.get("data")
        if reply:
            return reply
        self.write(envelope, session, False)
        return "250 2.0.0 Accepted"


class Authenticator:
    def __init__(self, user, password):
        self.user = user.encode()
        self.password = password.encode()

    def __call__(self, server, session, envelope, mechanism, auth_data):
        ok = isinstance(auth_data, LoginPassword) and auth_data.login == self.user and \
            auth_data.password == self.password
        return AuthResult(success=ok, handled=False, auth_data=auth_data)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--spool", required=True)
    parser.add_argument("--control")
    parser.add_argument("--tls-dir")
    parser.add_argument("--require-starttls", action="store_true")
    parser.add_argument("--smtps", action="store_true")
    parser.add_argument("--auth")
    arguments = parser.parse_args()
    os.makedirs(arguments.spool, exist_ok=True)

    context = make_certificate(arguments.tls_dir) if arguments.tls_dir else None
    handler = Handler(arguments.spool, arguments.control)
    options = {"data_size_limit": 64 * 1024 * 1024, "enable_SMTPUTF8": True}
    if arguments.auth:
        user, password = arguments.auth.split(":", 1)
        options.update(authenticator=Authenticator(user, password), auth_required=True,
                       auth_require_tls=False)
    if context and not arguments.smtps:
        options.update(tls_context=context, require_starttls=arguments.require_starttls)

    port = arguments.port
    if port == 0:
        import socket
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
    controller = Controller(handler, hostname="127.0.0.1", port=port,
                            ssl_context=context if arguments.smtps else None,
                            server_kwargs=options, ready_timeout=20)
    controller.start()
    print("READY %d" % port, flush=True)

    stop = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: stop.set())
    signal.signal(signal.SIGINT, lambda *_: stop.set())
    while not stop.is_set():
        time.sleep(0.1)
    controller.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
