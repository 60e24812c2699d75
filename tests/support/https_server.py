#!/usr/bin/env python3
"""A small static HTTPS server for the test suite (standard library only); see
https_test_server.h for the routes it answers and the request log it keeps.

Serves --root over TLS on 127.0.0.1 at a port the system picks, printed as the first line of
standard output once a first line arrives on standard input (the certificate is ready then). It
exits as soon as its standard input closes, so a test that crashes never leaves it behind.
"""

import argparse
import email.utils
import hashlib
import http.server
import json
import os
import ssl
import sys
import threading
import time


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, format, *args):  # noqa: A002 - the base class's name
        pass

    def do_GET(self):
        self.record()
        route = self.find_route()
        if route is not None:
            self.answer_route(route)
        else:
            self.answer_file()

    def record(self):
        if not self.server.log_path:
            return
        entry = {
            "method": self.command,
            "path": self.path,
            "headers": [[name.lower(), value] for name, value in self.headers.items()],
        }
        with self.server.log_lock, open(self.server.log_path, "a", encoding="utf-8") as log:
            log.write(json.dumps(entry) + "\n")

    def find_route(self):
        if not self.server.routes_path:
            return None
        try:
            with open(self.server.routes_path, encoding="utf-8") as f:
                routes = json.load(f)
        except (OSError, ValueError):
            return None
        if self.path in routes:
            return routes[self.path]
        return routes.get(self.path.split("?", 1)[0])

    def resolve(self, relative):
        root = os.path.realpath(self.server.root)
        path = os.path.realpath(os.path.join(root, relative.lstrip("/")))
        if path != root and not path.startswith(root + os.sep):
            return None
        return path

    def answer_route(self, route):
        delay = route.get("delay_ms", 0)
        if delay:
            time.sleep(delay / 1000.0)
        body = route.get("body", "").encode("utf-8")
        status = route.get("status", 302 if "redirect_to" in route else 200)
        self.send_response(status)
        if "redirect_to" in route:
            self.send_header("Location", route["redirect_to"])
        for name, value in route.get("headers", {}).items():
            self.send_header(name, value)
        if route.get("omit_length"):
            self.send_header("Connection", "close")
            self.close_connection = True
        else:
            length = route.get("declared_length", len(body))
            self.send_header("Content-Length", str(length))
            if length != len(body):
                self.close_connection = True
        self.end_headers()
        if status != 304 and status != 204:
            self.wfile.write(body)

    def answer_file(self):
        path = self.resolve(self.path.split("?", 1)[0])
        if path is None or not os.path.isfile(path):
            self.send_response(404)
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        with open(path, "rb") as f:
            body = f.read()
        etag = '"' + hashlib.sha256(body).hexdigest()[:32] + '"'
        modified = int(os.path.getmtime(path))
        not_modified = False
        if "If-None-Match" in self.headers:
            tags = [t.strip() for t in self.headers["If-None-Match"].split(",")]
            not_modified = etag in tags or "*" in tags
        elif "If-Modified-Since" in self.headers:
            since = email.utils.parsedate_to_datetime(self.headers["If-Modified-Since"])
            not_modified = since is not None and since.timestamp() >= modified
        self.send_response(304 if not_modified else 200)
        self.send_header("ETag", etag)
        self.send_header("Last-Modified", email.utils.formatdate(modified, usegmt=True))
        if not_modified:
            self.end_headers()
            return
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        # Clients that give up (refused certificates, time-outs) are what tests do on purpose.
        pass


def exit_when_stdin_closes():
    while sys.stdin.buffer.read(4096):
        pass
    os._exit(0)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", required=True)
    parser.add_argument("--cert", required=True)
    parser.add_argument("--key", required=True)
    parser.add_argument("--routes")
    parser.add_argument("--log")
    args = parser.parse_args()

    # The certificate may still be in the making: wait for the word (or for the end of input,
    # which means give up).
    if not sys.stdin.buffer.readline():
        return

    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(args.cert, args.key)
    server = Server(("127.0.0.1", 0), Handler)
    # The handshake happens in the request's own thread, so one stalled client cannot block
    # accepting the next.
    server.socket = context.wrap_socket(server.socket, server_side=True,
                                        do_handshake_on_connect=False)
    server.root = args.root
    server.routes_path = args.routes
    server.log_path = args.log
    server.log_lock = threading.Lock()

    threading.Thread(target=exit_when_stdin_closes, daemon=True).start()
    sys.stdout.write("%d\n" % server.server_address[1])
    sys.stdout.flush()
    server.serve_forever()


if __name__ == "__main__":
    main()
