#!/usr/bin/python3
"""A small OAuth2 authorization server for the tests, on a loopback port.

    oauth_test_server.py serve [--lifetime SECONDS]   prints "READY <port>", then serves until killed
    oauth_test_server.py call <url> [name=value ...]   posts a form and prints the answer (the test's hand)
    oauth_test_server.py token <url>                  prints a fresh access token from <url>/issue alone,
                                                      as a token helper of a mail program does
    oauth_test_server.py open <url>                   opens an address as a browser whose user agrees

Endpoints: /device (RFC 8628 device authorization), /authorize (the authorization code grant, PKCE S256
required, redirects only to a loopback address), /token (device_code, authorization_code and refresh_token
grants),
/introspect (RFC 7662, for Dovecot), and the test's controls: /verify (the user enters the code), /issue
(an access token for a token helper), /revoke (every refresh token), /expire (every access token),
/stats, /tokens (every token handed out). Access tokens live --lifetime seconds.
"""
import base64
import hashlib
import json
import secrets
import sys
import threading
import time
import urllib.parse
import urllib.request
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

USER = "anna"


class State:
    def __init__(self, lifetime):
        self.lock = threading.Lock()
        self.lifetime = lifetime
        self.devices = {}  # device_code -> {"user_code", "approved", "user"}
        self.codes = {}  # authorization code -> {"challenge", "redirect_uri", "user"}
        self.refresh = {}  # refresh token -> {"user", "active"}
        self.access = {}  # access token -> {"user", "expires"}
        self.counts = {"refreshes": 0, "introspections": 0, "device_polls": 0}

    def issue(self, user, with_refresh):
        token = secrets.token_hex(16)
        self.access[token] = {"user": user, "expires": time.time() + self.lifetime}
        answer = {"access_token": token, "token_type": "Bearer", "expires_in": self.lifetime}
        if with_refresh:
            refresh = secrets.token_hex(16)
            self.refresh[refresh] = {"user": user, "active": True}
            answer["refresh_token"] = refresh
        return answer


class Handler(BaseHTTPRequestHandler):
    # Dovecot's HTTP client keeps its connections and may wait for "100 Continue": HTTP/1.1 answers both.
    protocol_version = "HTTP/1.1"
    state = None
    port = 0

    def log_message(self, *args):
        pass

    def answer(self, status, body):
        data = json.dumps(body).encode()
        self.send_response(status)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    def do_GET(self):
        url = urllib.parse.urlparse(self.path)
        query = {k: v[0] for k, v in urllib.parse.parse_qs(url.query).items()}
        if url.path != "/authorize":
            return self.answer(404, {"error": "not_found"})
        redirect = query.get("redirect_uri", "")
        if (query.get("response_type") != "code" or not query.get("client_id")
                or query.get("code_challenge_method") != "S256" or len(query.get("code_challenge", "")) != 43
                or not redirect.startswith("http://127.0.0.1:")):
            return self.answer(400, {"error": "invalid_request"})
        code = secrets.token_hex(16)
        with self.state.lock:
            self.state.codes[code] = {"challenge": query["code_challenge"], "redirect_uri": redirect, "user": USER}
        self.send_response(302)
        self.send_header("Location", redirect + "?" + urllib.parse.urlencode(
            {"code": code, "state": query.get("state", "")}))
        self.send_header("Content-Length", "0")
        self.end_headers()

    def do_POST(self):
        length = int(self.headers.get("Content-Length", "0"))
        form = {k: v[0] for k, v in urllib.parse.parse_qs(self.rfile.read(length).decode()).items()}
        route = getattr(self, "route_" + self.path.strip("/"), None)
        if route is None:
            return self.answer(404, {"error": "not_found"})
        with self.state.lock:
            status, body = route(form)
        self.answer(status, body)

    def route_device(self, form):
        if not form.get("client_id"):
            return 400, {"error": "invalid_client"}
        device = secrets.token_hex(16)
        user_code = secrets.token_hex(2).upper() + "-" + secrets.token_hex(2).upper()
        self.state.devices[device] = {"user_code": user_code, "approved": False, "user": USER}
        return 200, {"device_code": device, "user_code": user_code, "expires_in": 300, "interval": 1,
                     "verification_uri": "http://127.0.0.1:%d/verify" % self.port}

    def route_verify(self, form):
        for device in self.state.devices.values():
            if device["user_code"] == form.get("user_code"):
                device["approved"] = True
                return 200, {"ok": True}
        return 400, {"error": "unknown_code"}

    def route_token(self, form):
        grant = form.get("grant_type")
        if grant == "urn:ietf:params:oauth:grant-type:device_code":
            self.state.counts["device_polls"] += 1
            device = self.state.devices.get(form.get("device_code"))
            if device is None:
                return 400, {"error": "expired_token"}
            if not device["approved"]:
                return 400, {"error": "authorization_pending"}
            del self.state.devices[form["device_code"]]
            return 200, self.state.issue(device["user"], True)
        if grant == "authorization_code":
            code = self.state.codes.pop(form.get("code", ""), None)
            verifier = form.get("code_verifier", "").encode()
            challenge = base64.urlsafe_b64encode(hashlib.sha256(verifier).digest()).rstrip(b"=").decode()
            if code is None or code["redirect_uri"] != form.get("redirect_uri") or code["challenge"] != challenge:
                return 400, {"error": "invalid_grant"}
            return 200, self.state.issue(code["user"], True)
        if grant == "refresh_token":
            self.state.counts["refreshes"] += 1
            refresh = self.state.refresh.get(form.get("refresh_token"))
            if refresh is None or not refresh["active"]:
                return 400, {"error": "invalid_grant", "error_description": "refresh token revoked"}
            return 200, self.state.issue(refresh["user"], False)
        return 400, {"error": "unsupported_grant_type"}

    def route_introspect(self, form):
        self.state.counts["introspections"] += 1
        access = self.state.access.get(form.get("token", ""))
        if access is None or access["expires"] < time.time():
            return 200, {"active": False}
        return 200, {"active": True, "username": access["user"]}

    def route_issue(self, form):
        return 200, self.state.issue(form.get("user", USER), False)

    def route_stats(self, form):
        return 200, dict(self.state.counts)

    def route_tokens(self, form):
        return 200, {"tokens": list(self.state.access) + list(self.state.refresh)}

    def route_revoke(self, form):
        for refresh in self.state.refresh.values():
            refresh["active"] = False
        return 200, {"ok": True}

    def route_expire(self, form):
        for access in self.state.access.values():
            access["expires"] = 0
        return 200, {"ok": True}


def serve(arguments):
    lifetime = int(arguments[arguments.index("--lifetime") + 1]) if "--lifetime" in arguments else 3600
    Handler.state = State(lifetime)
    server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    Handler.port = server.server_address[1]
    print("READY %d" % Handler.port, flush=True)
    server.serve_forever()


def post(url, fields):
    data = urllib.parse.urlencode(dict(f.split("=", 1) for f in fields)).encode()
    try:
        with urllib.request.urlopen(url, data=data, timeout=10) as reply:
            return reply.read().decode()
    except urllib.error.HTTPError as error:
        return error.read().decode()


if __name__ == "__main__":
    if sys.argv[1] == "serve":
        serve(sys.argv[2:])
    elif sys.argv[1] == "open":
        with urllib.request.urlopen(sys.argv[2], timeout=30) as page:
            print(page.read().decode())
    elif sys.argv[1] == "token":
        print(json.loads(post(sys.argv[2] + "/issue", ["user=" + USER]))["access_token"])
    else:
        print(post(sys.argv[2], sys.argv[3:]))
