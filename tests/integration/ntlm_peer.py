"""A proxy stand-in that demands NTLM and checks it with GSSAPI (the
gss-ntlmssp mechanism as acceptor, users and passwords from the file that
NTLM_USER_FILE names). It offers Basic too but never accepts it. A connection
is served (200, the user's name) only once a handshake on that same
connection succeeded. Usage: ntlm_peer.py PORT EVENTS; one line per request
goes to the file EVENTS: the connection's number and what happened. Needs
Debian's python3-gssapi, so it runs under /usr/bin/python3."""

import base64
import socketserver
import sys

import gssapi


class Handler(socketserver.StreamRequestHandler):
    def handle(self):
        conn = ctx = user = None
        while True:
            head = [self.rfile.readline()]
            while head[-1] not in (b"\r\n", b""):
                head.append(self.rfile.readline())
            if head[-1] == b"":
                return
            if conn is None:  # numbered from the first request (not port probes)
                self.server.conns += 1
                conn = self.server.conns
            fields = dict((k.strip().lower(), v.strip()) for k, _, v in
                          (l.decode().partition(":") for l in head[1:-1]))
            self.rfile.read(int(fields.get("content-length", "0")))
            token = fields.get("proxy-authorization", "")
            challenge = "NTLM\r\nProxy-Authenticate: Basic realm=\"ntlmpeer\""
            if user:
                event = "kept"
            elif token.startswith("NTLM "):
                try:
                    ctx = ctx or gssapi.SecurityContext(usage="accept")
                    out = ctx.step(base64.b64decode(token[5:]))
                    if ctx.complete:
                        user, event = str(ctx.initiator_name).rstrip("\0"), "accepted"
                    else:
                        challenge, event = "NTLM " + base64.b64encode(out).decode(), "challenged"
                except gssapi.exceptions.GSSError:
                    ctx, event = None, "refused"
            else:
                event = "offered"
            with open(sys.argv[2], "a") as f:
                f.write("%d %s\n" % (conn, event))
            if user:
                body = ("hello %s\n" % user).encode()
                self.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(body) + body)
            else:
                self.wfile.write(("HTTP/1.1 407 Proxy Authentication Required\r\n"
                                  "Proxy-Authenticate: %s\r\nContent-Length: 0\r\n\r\n"
                                  % challenge).encode())


class Server(socketserver.ThreadingTCPServer):
    daemon_threads = True
    allow_reuse_address = True
    conns = 0


Server(("127.0.0.1", int(sys.argv[1])), Handler).serve_forever()
