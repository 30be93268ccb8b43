#!/usr/bin/env python3
"""A small HTTPS file server for the policy-pull tests.

Serves the files of a folder with a strong ETag (the SHA-256 of the content)
and answers If-None-Match with 304.  Listens on 127.0.0.1 at a free port,
writes the port to PORT_FILE once it listens, and appends one line per
request ("GET /name 200") to LOG_FILE.

usage: https_server.py ROOT CERT KEY PORT_FILE LOG_FILE
"""
import hashlib
import http.server
import os
import ssl
import sys

root, cert, key, port_file, log_file = sys.argv[1:6]


class Handler(http.server.BaseHTTPRequestHandler):
    def log_message(self, fmt, *args):
        pass

    def record(self, status):
        with open(log_file, "a") as log:
            log.write("%s %s %d\n" % (self.command, self.path, status))

    def do_GET(self):
        path = os.path.join(root, os.path.basename(self.path))
        try:
            with open(path, "rb") as f:
                body = f.read()
        except OSError:
            self.record(404)
            self.send_error(404)
            return
        etag = '"%s"' % hashlib.sha256(body).hexdigest()
        if self.headers.get("If-None-Match") == etag:
            self.record(304)
            self.send_response(304)
            self.send_header("ETag", etag)
            self.end_headers()
            return
        self.record(200)
        self.send_response(200)
        self.send_header("ETag", etag)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(cert, key)
server.socket = context.wrap_socket(server.socket, server_side=True)
with open(port_file + ".tmp", "w") as f:
    f.write(str(server.server_address[1]))
os.rename(port_file + ".tmp", port_file)
server.serve_forever()
