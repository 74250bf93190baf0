#!/usr/bin/env python3
"""Instructions per request of the sf echo or proxy site, under callgrind.

The site is the one bench/http_bench.py measures (one reader thread, two
workers, log level 0). A client sends GET requests one after the other on four
keep-alive connections; the count covers only the measured requests (the
warm-up runs with instrumentation off), so it does not depend on the
machine's load. Modes: echo (dummyWorker sf_echo, not evaluated), echo-eval
(the same reply through a script the worker evaluates: `sf_echo;`), proxy
(httpWorker -forward to an nginx backend, `return 200 $uri`).

    python3 bench/callgrind_request.py proxy --build build --requests 2000
"""
import argparse
import os
import re
import shutil
import socket
import subprocess
import tempfile
import time

import http_bench as hb

REQUEST = b"GET /x HTTP/1.1\r\nHost: bench\r\n\r\n"


def site(tmp, build, mode, backend):
    start = hb.PROXY_START if mode == "proxy" else hb.ECHO_START
    if mode == "echo-eval":
        start = start.replace("http sf_echo }", "http {{sf_echo;}} }")
    root = tempfile.mkdtemp(prefix="sf-", dir=tmp)
    data = os.path.join(root, "data")
    os.makedirs(os.path.join(root, "etc"))
    os.makedirs(data)
    port = hb.free_port()
    hb.write(os.path.join(root, "etc", "config.tcl"),
             hb.SF_CONFIG.format(port=port, threads="set sf.reader.threads 1"))
    hb.write(os.path.join(root, "etc", "start.tcl"),
             start.format(port=port, workers=2, backend=backend))
    shutil.copy(os.path.join(hb.SOURCE, "etc", "sf_events.msg"), os.path.join(root, "etc"))
    return root, data, port


def send(socks, count):
    for i in range(count):
        s = socks[i % len(socks)]
        s.sendall(REQUEST)
        got = b""
        while not got.endswith(b"/x"):
            chunk = s.recv(4096)
            if not chunk:
                raise RuntimeError("the site closed a connection")
            got += chunk


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("mode", choices=["echo", "echo-eval", "proxy"])
    ap.add_argument("--build", default="build")
    ap.add_argument("--requests", type=int, default=2000)
    args = ap.parse_args()
    tmp = tempfile.mkdtemp(prefix="sf-callgrind-")
    backend = hb.nginx(tmp, "return 200 $uri;") if args.mode == "proxy" else None
    root, data, port = site(tmp, args.build, args.mode, backend.port if backend else 0)
    out = os.path.join(tmp, "callgrind.out")
    proc = subprocess.Popen(
        ["valgrind", "--tool=callgrind", "--instr-atstart=no", "--callgrind-out-file=" + out,
         os.path.join(os.path.abspath(args.build), "bin", "sfhost"), "-d", "0"],
        env=dict(os.environ, SFROOTDIR=root, SFDATDIR=data), cwd=data,
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        for _ in range(600):
            try:
                socks = [socket.create_connection(("127.0.0.1", port)) for _ in range(4)]
                break
            except OSError:
                time.sleep(0.1)
        send(socks, 200)
        subprocess.run(["callgrind_control", "-i", "on", str(proc.pid)], capture_output=True)
        send(socks, args.requests)
        subprocess.run(["callgrind_control", "-i", "off", str(proc.pid)], capture_output=True)
        subprocess.run(["callgrind_control", "-d", str(proc.pid)], capture_output=True)
    finally:
        proc.terminate()
        proc.wait(60)
        if backend:
            backend.close()
    report = subprocess.run(["callgrind_annotate", "--inclusive=yes", out + ".1"],
                            capture_output=True, text=True).stdout
    total = int(re.search(r"([\d,]+)\s+\(100.0%\)\s+PROGRAM TOTALS", report).group(1)
                .replace(",", ""))
    print("%s: %d instructions per request (%d requests); profile in %s"
          % (args.mode, total // args.requests, args.requests, out + ".1"))


if __name__ == "__main__":
    main()
