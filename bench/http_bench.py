#!/usr/bin/env python3
"""HTTP load, side by side in one run, with wrk:

1. the sf HTTP echo site (httpReader + dummyWorker sf_echo) against nginx
   returning a small body, at 1, 50 and 500 connections;
2. the proxy path: sf (httpReader + httpWorker) in front of an nginx backend,
   against nginx proxy_pass and HAProxy (when installed) to the same backend.

Prints a Markdown table of requests/s and 99th-percentile latency.

    python3 bench/http_bench.py [--build build] [--duration 10] [--workers 4]
"""

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "integration"))


def wrk(port, conns, duration, path="/"):
    threads = min(2, conns)
    out = subprocess.run(["wrk", "-t%d" % threads, "-c%d" % conns, "-d%ds" % duration,
                          "--latency", "http://127.0.0.1:%d%s" % (port, path)],
                         capture_output=True, text=True, timeout=duration + 60).stdout
    rps = re.search(r"Requests/sec:\s+([\d.]+)", out)
    p99 = re.search(r"^\s+99%\s+([\d.]+)(us|ms|s)\s*$", out, re.M)
    errors = re.search(r"Non-2xx or 3xx responses: (\d+)", out)
    sockerr = re.search(r"Socket errors: (.*)", out)
    if not rps:
        return ("failed", "", out[-300:])
    lat = ""
    if p99:
        v, unit = float(p99.group(1)), p99.group(2)
        lat = "%.2f ms" % (v / 1000 if unit == "us" else v * 1000 if unit == "s" else v)
    note = []
    if errors:
        note.append("non-2xx %s" % errors.group(1))
    if sockerr:
        note.append("socket errors: %s" % sockerr.group(1).strip())
    return ("%.0f" % float(rps.group(1)), lat, "; ".join(note))


ECHO_CONFIG = """
set sf.log.dir .
set sf.log.level 0
set sf.tcp.backlog 1024
# one request per connection can wait at a time: room for every connection
set sf.qsize 4096
mkQ http
bind 127.0.0.1 {port}
"""
ECHO_START = """
spinThread httpReader 127.0.0.1 {port} {{enQ http}}
for {{set i 0}} {{$i < {workers}}} {{incr i}} {{ spinThread dummyWorker http sf_echo }}
"""
PROXY_START = """
spinThread httpReader 127.0.0.1 {port} {{enQ http}}
for {{set i 0}} {{$i < {workers}}} {{incr i}} {{ spinThread httpWorker http 127.0.0.1 {backend} -forward }}
"""

SMALL_SITE = """
    server {{
        listen 127.0.0.1:{port} backlog=1024;
        location / {{ return 200 "hello\\n"; }}
        {extra}
    }}
"""


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=os.path.join(HERE, "..", "build"))
    ap.add_argument("--duration", type=int, default=10)
    ap.add_argument("--workers", type=int, default=4)
    ap.add_argument("--conns", default="1,50,500")
    args = ap.parse_args()
    os.environ["SF_BUILD_DIR"] = os.path.abspath(args.build)
    os.environ.setdefault("SF_SOURCE_DIR", os.path.join(HERE, ".."))
    import sfnet_support as S
    conns = [int(c) for c in args.conns.split(",")]

    rows = []
    started = []
    try:
        # backend / small-body server: one nginx worker process
        nginx = S.Nginx(site=SMALL_SITE, workers=1, master=True)
        started.append(nginx)
        # nginx as a reverse proxy to it, with upstream keep-alive
        pport = S.free_port()
        proxy_site = SMALL_SITE + """
    upstream backend {{ server 127.0.0.1:{backend}; keepalive 64; }}
    server {{
        listen 127.0.0.1:{pport} backlog=1024;
        location / {{ proxy_pass http://backend; proxy_http_version 1.1;
                     proxy_set_header Connection ""; }}
    }}
""".replace("{backend}", str(nginx.port)).replace("{pport}", str(pport))
        nproxy = S.Nginx(site=proxy_site, workers=1, master=True)
        started.append(nproxy)
        S.wait_port(pport)

        echo_port = S.free_port()
        echo = S.Site(ECHO_CONFIG.format(port=echo_port),
                      ECHO_START.format(port=echo_port, workers=args.workers))
        started.append(echo)
        echo.start(level=0)
        S.wait_port(echo_port, echo.proc)

        sproxy_port = S.free_port()
        sproxy = S.Site(ECHO_CONFIG.format(port=sproxy_port),
                        PROXY_START.format(port=sproxy_port, workers=args.workers,
                                           backend=nginx.port))
        started.append(sproxy)
        sproxy.start(level=0)
        S.wait_port(sproxy_port, sproxy.proc)

        haproxy_port = None
        if shutil.which("haproxy"):
            hdir = tempfile.mkdtemp(prefix="sf-haproxy-")
            haproxy_port = S.free_port()
            conf = os.path.join(hdir, "haproxy.cfg")
            with open(conf, "w") as f:
                f.write("""global
    maxconn 4096
    nbthread 1
defaults
    mode http
    timeout connect 5s
    timeout client 30s
    timeout server 30s
    http-reuse always
frontend fe
    bind 127.0.0.1:%d
    default_backend be
backend be
    server s1 127.0.0.1:%d
""" % (haproxy_port, nginx.port))
            hp = subprocess.Popen(["haproxy", "-db", "-f", conf], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)

            class Hap:
                proc = hp

                def close(self):
                    S.stop(hp)
                    shutil.rmtree(hdir, ignore_errors=True)
            started.append(Hap())
            S.wait_port(haproxy_port, hp)

        targets = [("sf echo site", echo_port, "/"), ("nginx small body", nginx.port, "/")]
        for c in conns:
            for name, port, path in targets:
                rows.append(("direct", name, c) + wrk(port, c, args.duration, path))
        ptargets = [("sf httpWorker -> nginx", sproxy_port), ("nginx proxy_pass -> nginx", pport)]
        if haproxy_port:
            ptargets.append(("HAProxy -> nginx", haproxy_port))
        for c in conns:
            for name, port in ptargets:
                rows.append(("proxy", name, c) + wrk(port, c, args.duration, "/hello"))
    finally:
        for s in reversed(started):
            s.close()

    print("nproc: %s; wrk %ds per row; sf workers: %d" %
          (os.cpu_count(), args.duration, args.workers))
    print()
    print("| path | server | connections | requests/s | p99 latency | notes |")
    print("|---|---|---|---|---|---|")
    for r in rows:
        print("| %s | %s | %d | %s | %s | %s |" % r)


if __name__ == "__main__":
    main()
