"""A scriptable update server for the tests, on Python's standard library only.

Usage: update_server.py DIR [CERT KEY]

Listens on 127.0.0.1 on a port of its choosing (HTTPS with CERT and KEY), prints "PORT <n>",
and appends every request's path and query to DIR/requests.log. Answers come from
DIR/plan.json, read afresh for each request: an object keyed by URL path (without the
query), each value an object with
  "status"    HTTP status, default 200
  "location"  a Location header
  "body"      a file in DIR whose bytes are the body (default: empty body)
  "md5"       "auto" (the body's digest, the default), "omit", or the hex text to send
  "length"    "auto" (the default) or "omit"; without it the body ends at close
  "signature" a file in DIR whose text is sent as "X-Content-Signature"
  "stall"     true: send the headers and the first bytes, then send nothing more
A path missing from the plan gets 404.
"""

import hashlib
import http.server
import json
import os
import ssl
import sys
import threading

DIR = sys.argv[1]
STALLED = threading.Event()  # never set: a stalled answer waits until the process ends


class Handler(http.server.BaseHTTPRequestHandler):
    def log_message(self, fmt, *args):
        pass

    def do_GET(self):
        with open(os.path.join(DIR, "requests.log"), "a") as log:
            log.write(self.path + "\n")
        with open(os.path.join(DIR, "plan.json")) as f:
            plan = json.load(f)
        answer = plan.get(self.path.split("?", 1)[0])
        if answer is None:
            self.send_error(404)
            return
        body = b""
        if "body" in answer:
            with open(os.path.join(DIR, answer["body"]), "rb") as f:
                body = f.read()
        self.send_response(answer.get("status", 200))
        if "location" in answer:
            self.send_header("Location", answer["location"])
        md5 = answer.get("md5", "auto")
        if md5 != "omit":
            self.send_header("X-Content-Md5", hashlib.md5(body).hexdigest() if md5 == "auto" else md5)
        if "signature" in answer:
            with open(os.path.join(DIR, answer["signature"])) as f:
                self.send_header("X-Content-Signature", f.read().strip())
        if answer.get("length", "auto") != "omit":
            self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if answer.get("stall"):
            self.wfile.write(body[:16])
            self.wfile.flush()
            STALLED.wait(600)
            return
        self.wfile.write(body)


def main():
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    if len(sys.argv) == 4:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(sys.argv[2], sys.argv[3])
        server.socket = context.wrap_socket(server.socket, server_side=True)
    print("PORT %d" % server.server_address[1], flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
