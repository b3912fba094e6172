#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Receivers of alert notifications for the tests, all on free ports of 127.0.0.1:

- http:      HTTP; answers every request with --status (or the request's ?status=NNN,
             after its ?delay=MS), recording method, path, headers and body;
- https:     the same over TLS;
- smtp:      SMTP offering STARTTLS and requiring it and a login (AUTH LOGIN/PLAIN with
             --user/--password) before a mail is accepted;
- smtpplain: SMTP without STARTTLS;
- smtps:     SMTP over TLS from the start, login required.

The TLS certificate (self-signed, for 127.0.0.1 and localhost) is made with the openssl
command in DIR as cert.pem. Every request lands in DIR/http/NNNNNN.json and every mail in
DIR/mail/NNNNNN.json, each written whole (temporary file, rename). When all listen, the
ports are written to DIR/ready.json. Runs until killed.
"""

import argparse
import asyncio
import base64
import email
import email.policy
import http.server
import json
import os
import ssl
import subprocess
import sys
import threading
import time
import urllib.parse
import warnings

from aiosmtpd.smtp import SMTP

counter_lock = threading.Lock()
counter = [0]


def record(folder, entry):
    with counter_lock:
        counter[0] += 1
        number = counter[0]
    name = os.path.join(folder, "%06d.json" % number)
    with open(name + ".tmp", "w", encoding="utf-8") as out:
        json.dump(entry, out)
    os.rename(name + ".tmp", name)


def make_certificate(folder):
    cert = os.path.join(folder, "cert.pem")
    key = os.path.join(folder, "key.pem")
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
         "-nodes", "-keyout", key, "-out", cert, "-days", "2", "-subj", "/CN=localhost",
         "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost"],
        check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=30)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(cert, key)
    return context


def http_handler(folder, status):
    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def answer(self):
            length = int(self.headers.get("Content-Length") or 0)
            body = self.rfile.read(min(length, 16 << 20)) if length > 0 else b""
            query = urllib.parse.parse_qs(urllib.parse.urlsplit(self.path).query)
            record(folder, {
                "method": self.command,
                "path": self.path,
                "headers": [[name, value] for name, value in self.headers.items()],
                "body": base64.b64encode(body).decode("ascii"),
            })
            delay = int(query.get("delay", ["0"])[0])
            if delay > 0:
                time.sleep(min(delay, 60000) / 1000)
            code = int(query.get("status", [str(status)])[0])
            reply = b"received\n"
            try:
                self.send_response(code)
                self.send_header("Content-Type", "text/plain")
                self.send_header("Content-Length", str(len(reply)))
                self.end_headers()
                self.wfile.write(reply)
            except OSError:
                pass  # the sender gave up waiting

        do_POST = do_GET = do_PUT = answer

        def log_message(self, *args):
            pass

    return Handler


def serve_http(folder, status, tls_context):
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), http_handler(folder, status))
    server.daemon_threads = True
    if tls_context is not None:
        server.socket = tls_context.wrap_socket(server.socket, server_side=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server.server_address[1]


class MailHandler:
    def __init__(self, folder, server_name):
        self.folder = folder
        self.server_name = server_name

    async def handle_DATA(self, server, session, envelope):
        data = envelope.original_content or b""
        parsed = email.message_from_bytes(data, policy=email.policy.default)
        try:
            text = parsed.get_content() if not parsed.is_multipart() else ""
            text = text.replace("\r\n", "\n")
        except (LookupError, ValueError):
            text = None
        auth = session.auth_data
        record(self.folder, {
            "server": self.server_name,
            "from": envelope.mail_from,
            "to": list(envelope.rcpt_tos),
            "login": auth.login.decode("utf-8", "replace") if auth is not None else "",
            "tls": server.transport.get_extra_info("ssl_object") is not None,
            "data": base64.b64encode(data).decode("ascii"),
            "subject": str(parsed.get("Subject", "")),
            "text": text,
            "defects": [type(d).__name__ for d in parsed.defects],
        })
        return "250 OK"


async def serve_mail(folder, user, password, tls_context):
    loop = asyncio.get_running_loop()

    def check(mechanism, login, secret):
        return login == user.encode() and secret == password.encode()

    def factory(name, **options):
        return lambda: SMTP(MailHandler(folder, name), hostname="receiver.test",
                            auth_callback=check, loop=loop, **options)

    async def listen(protocol_factory, **extra):
        server = await loop.create_server(protocol_factory, host="127.0.0.1", port=0, **extra)
        return server.sockets[0].getsockname()[1]

    return {
        "smtp": await listen(factory("smtp", tls_context=tls_context, require_starttls=True,
                                     auth_required=True, auth_require_tls=True)),
        "smtpplain": await listen(factory("smtpplain")),
        # Already encrypted: the login needs no STARTTLS first.
        "smtps": await listen(factory("smtps", auth_required=True, auth_require_tls=False),
                              ssl=tls_context),
    }


def main():
    warnings.simplefilter("ignore")  # aiosmtpd warns about the login over implicit TLS
    parser = argparse.ArgumentParser()
    parser.add_argument("--dir", required=True)
    parser.add_argument("--status", type=int, default=200)
    parser.add_argument("--user", default="alerts")
    parser.add_argument("--password", default="secret")
    args = parser.parse_args()

    for sub in ("http", "mail"):
        os.makedirs(os.path.join(args.dir, sub), exist_ok=True)
    tls_context = make_certificate(args.dir)
    ports = {
        "http": serve_http(os.path.join(args.dir, "http"), args.status, None),
        "https": serve_http(os.path.join(args.dir, "http"), args.status, tls_context),
    }

    loop = asyncio.new_event_loop()
    asyncio.set_event_loop(loop)
    ports.update(loop.run_until_complete(
        serve_mail(os.path.join(args.dir, "mail"), args.user, args.password, tls_context)))
    ready = os.path.join(args.dir, "ready.json")
    with open(ready + ".tmp", "w", encoding="utf-8") as out:
        json.dump(ports, out)
    os.rename(ready + ".tmp", ready)
    loop.run_forever()


if __name__ == "__main__":
    sys.exit(main())
