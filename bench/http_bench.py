#!/usr/bin/env python3
"""HTTP load, sf beside its real peers, in one run with wrk.

Every server runs pinned to core 1 (`taskset -c 1`); wrk (one thread) and this
script's own clients run on core 0. Each point is measured --repeat times,
sf and its peer back to back, and the median is printed:

1. direct: the sf HTTP echo site (httpReader + dummyWorker sf_echo, a GET gets
   its URL back) against nginx (one worker, `return 200 $uri`);
2. proxy: sf (httpReader + httpWorker) in front of an nginx backend against
   HAProxy (one thread) in front of the same backend;
3. crowd: the echo site and nginx with and without 200 slow clients (each
   sends a byte of an unfinished request now and then) and 3,000 idle
   keep-alive connections beside the load; a lone request's latency too;
4. memory: resident memory per idle keep-alive connection;
5. reader threads: the echo site with 1 and with 2 reader threads
   (`sf.reader.threads`), pinned to both cores (wrk stays on core 0).

Prints Markdown tables. Needs wrk, nginx and haproxy (scripts/deps.sh bench).

    python3 bench/http_bench.py [--build build] [--duration 8] [--repeat 3]
"""

import argparse
import os
import re
import resource
import select
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.abspath(os.path.join(HERE, ".."))
SERVER_CPUS = "1"
CLIENT_CPU = 0


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_port(port, proc, timeout=20.0):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if proc.poll() is not None:
            raise RuntimeError("server exited with %s before listening" % proc.returncode)
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=1):
                return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError("nothing listens on port %d" % port)


def write(path, text):
    with open(path, "w") as f:
        f.write(text)


class Server:
    """A server process in a throw-away directory, pinned to the server cores."""

    def __init__(self, argv, port, cpus=SERVER_CPUS, env=None, cwd=None):
        self.port = port
        self.proc = subprocess.Popen(["taskset", "-c", cpus] + argv, env=env, cwd=cwd,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_port(port, self.proc)

    def pids(self):
        """The process and its children (nginx's worker)."""
        out = subprocess.run(["pgrep", "-P", str(self.proc.pid)], capture_output=True, text=True)
        return [self.proc.pid] + [int(p) for p in out.stdout.split()]

    def rss_kib(self):
        total = 0
        for pid in self.pids():
            with open("/proc/%d/status" % pid) as f:
                total += int(re.search(r"VmRSS:\s+(\d+)", f.read()).group(1))
        return total

    def close(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(timeout=15)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()


def nginx(tmp, body_site):
    d = tempfile.mkdtemp(prefix="nginx-", dir=tmp)
    port = free_port()
    temps = "".join("%s_temp_path %s/%s; " % (n, d, n) for n in
                    ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
    write(os.path.join(d, "nginx.conf"), """
daemon off;
master_process on;
worker_processes 1;
pid %s/nginx.pid;
error_log %s/error.log;
events { worker_connections 8192; }
http {
    access_log off;
    default_type text/plain;
    keepalive_requests 1000000;
    %s
    server {
        listen 127.0.0.1:%d backlog=4096;
        location / { %s }
    }
}
""" % (d, d, temps, port, body_site))
    return Server(["nginx", "-p", d, "-c", os.path.join(d, "nginx.conf")], port)


def haproxy(tmp, backend):
    d = tempfile.mkdtemp(prefix="haproxy-", dir=tmp)
    port = free_port()
    conf = os.path.join(d, "haproxy.cfg")
    write(conf, """global
    maxconn 8192
    nbthread 1
defaults
    mode http
    timeout connect 5s
    timeout client 60s
    timeout server 60s
    http-reuse always
frontend fe
    bind 127.0.0.1:%d
    default_backend be
backend be
    server s1 127.0.0.1:%d
""" % (port, backend))
    return Server(["haproxy", "-db", "-f", conf], port)


SF_CONFIG = """
set sf.log.dir .
set sf.log.level 0
set sf.tcp.backlog 4096
# one request per connection can wait at a time: room for every connection
set sf.qsize 8192
{threads}
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


def sf_site(tmp, build, start, workers, backend=0, threads=None, cpus=SERVER_CPUS):
    root = tempfile.mkdtemp(prefix="sf-", dir=tmp)
    data = os.path.join(root, "data")
    os.makedirs(os.path.join(root, "etc"))
    os.makedirs(data)
    port = free_port()
    setting = "set sf.reader.threads %d" % threads if threads else ""
    write(os.path.join(root, "etc", "config.tcl"), SF_CONFIG.format(port=port, threads=setting))
    write(os.path.join(root, "etc", "start.tcl"),
          start.format(port=port, workers=workers, backend=backend))
    shutil.copy(os.path.join(SOURCE, "etc", "sf_events.msg"), os.path.join(root, "etc"))
    env = dict(os.environ, SFROOTDIR=root, SFDATDIR=data)
    return Server([os.path.join(build, "bin", "sfhost"), "-d", "0"], port, cpus=cpus, env=env,
                  cwd=data)


def wrk(port, conns, duration):
    out = subprocess.run(["taskset", "-c", str(CLIENT_CPU), "wrk", "-t1", "-c%d" % conns,
                          "-d%ds" % duration, "--latency", "http://127.0.0.1:%d/" % port],
                         capture_output=True, text=True, timeout=duration + 60).stdout
    rps = re.search(r"Requests/sec:\s+([\d.]+)", out)
    if not rps:
        raise RuntimeError("wrk failed:\n" + out)

    def pct(p):
        m = re.search(r"^\s+%s%%\s+([\d.]+)(us|ms|s)\s*$" % p, out, re.M)
        v, unit = float(m.group(1)), m.group(2)
        return v / 1000 if unit == "us" else v * 1000 if unit == "s" else v
    bad = re.search(r"Non-2xx or 3xx responses: (\d+)", out)
    err = re.search(r"Socket errors: (.*)", out)
    notes = []
    if bad:
        notes.append("non-2xx " + bad.group(1))
    if err:
        notes.append("socket errors: " + err.group(1).strip())
    return {"rps": float(rps.group(1)), "p50": pct(50), "p99": pct(99), "notes": notes}


def median_of(runs):
    notes = sorted({n for r in runs for n in r["notes"]})
    return {"rps": statistics.median(r["rps"] for r in runs),
            "p50": statistics.median(r["p50"] for r in runs),
            "p99": statistics.median(r["p99"] for r in runs), "notes": "; ".join(notes)}


def side_by_side(servers, conns, duration, repeat):
    """{(name, c): median} with the servers measured back to back in each round."""
    runs = {}
    for _ in range(repeat):
        for c in conns:
            for name, srv in servers:
                runs.setdefault((name, c), []).append(wrk(srv.port, c, duration))
    return {k: median_of(v) for k, v in runs.items()}


REQUEST = b"GET /idle HTTP/1.1\r\nHost: bench\r\n\r\n"


def open_idle(port, count):
    """count keep-alive connections, each answered once and then left idle."""
    socks = []
    for _ in range(count):
        s = socket.create_connection(("127.0.0.1", port))
        s.sendall(REQUEST)
        socks.append(s)
    for s in socks:
        s.settimeout(10)
        if not s.recv(4096).startswith(b"HTTP/1.1 200"):
            raise RuntimeError("an idle connection was not answered")
    return socks


class SlowClients:
    """count connections that each send a byte of an unfinished request every
    `every` seconds; one the server cuts off is replaced at once."""

    PARTIAL = b"GET /slow HTTP/1.1\r\nHost: bench\r\nX-Slow: "

    def __init__(self, port, count, every=1.0):
        self.port, self.every = port, every
        self.socks = [self._connect() for _ in range(count)]
        self.stopping = False
        self.cut_off = 0
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def _connect(self):
        s = socket.create_connection(("127.0.0.1", self.port))
        s.setblocking(False)
        return [s, 0]

    def _run(self):
        while not self.stopping:
            poll = select.poll()
            for s, _ in self.socks:
                poll.register(s, select.POLLIN)
            ended = {fd for fd, _ in poll.poll(0)}
            for entry in self.socks:
                s, sent = entry
                try:
                    if s.fileno() in ended or sent >= len(self.PARTIAL) + 4000:
                        raise OSError("answered or cut off")
                    s.send(self.PARTIAL[sent:sent + 1] if sent < len(self.PARTIAL) else b"x")
                    entry[1] = sent + 1
                except OSError:
                    s.close()
                    self.cut_off += 1
                    entry[0], entry[1] = self._connect()
            time.sleep(self.every)

    def close(self):
        self.stopping = True
        self.thread.join()
        for s, _ in self.socks:
            s.close()


def lone_latency_ms(port, count=50):
    """The slowest of count requests, each on a new connection, one at a time."""
    worst = 0.0
    for _ in range(count):
        t = time.monotonic()
        with socket.create_connection(("127.0.0.1", port), timeout=10) as s:
            s.sendall(REQUEST)
            if not s.recv(4096).startswith(b"HTTP/1.1 200"):
                raise RuntimeError("a lone request was not answered 200")
        worst = max(worst, (time.monotonic() - t) * 1000)
        time.sleep(0.02)
    return worst


def fmt(r):
    return "%.0f" % r["rps"], "%.2f ms" % r["p99"]


def table(head, rows):
    print("| " + " | ".join(head) + " |")
    print("|" + "---|" * len(head))
    for r in rows:
        print("| " + " | ".join(str(x) for x in r) + " |")
    print()


def run_direct_and_proxy(args, tmp):
    echo = sf_site(tmp, args.build, ECHO_START, args.workers)
    ng = nginx(tmp, "return 200 $uri;")
    backend = nginx(tmp, 'return 200 "hello\\n";')
    sproxy = sf_site(tmp, args.build, PROXY_START, args.workers, backend=backend.port)
    hap = haproxy(tmp, backend.port)
    try:
        d = side_by_side([("sf", echo), ("nginx", ng)], [50, 500], args.duration, args.repeat)
        p = side_by_side([("sf", sproxy), ("haproxy", hap)], [50, 500], args.duration,
                         args.repeat)
    finally:
        for s in (hap, sproxy, backend, ng, echo):
            s.close()
    print("### Direct: sf echo site against nginx (`return 200 $uri`)\n")
    rows = []
    for c in (50, 500):
        a, b = d[("sf", c)], d[("nginx", c)]
        rows.append((c,) + fmt(a) + fmt(b) + ("%.2f" % (a["rps"] / b["rps"]),
                                              "; ".join(filter(None, [a["notes"], b["notes"]]))))
    table(["connections", "sf req/s", "sf p99", "nginx req/s", "nginx p99", "sf/nginx", "notes"],
          rows)
    print("### Proxy: sf (httpReader + httpWorker) against HAProxy, both to one nginx\n")
    rows = []
    for c in (50, 500):
        a, b = p[("sf", c)], p[("haproxy", c)]
        rows.append((c,) + fmt(a) + fmt(b) + ("%.2f" % (a["rps"] / b["rps"]),
                                              "; ".join(filter(None, [a["notes"], b["notes"]]))))
    table(["connections", "sf req/s", "sf p99", "HAProxy req/s", "HAProxy p99", "sf/HAProxy",
           "notes"], rows)


def run_crowd(args, tmp):
    echo = sf_site(tmp, args.build, ECHO_START, args.workers)
    ng = nginx(tmp, "return 200 $uri;")
    servers = [("sf", echo), ("nginx", ng)]
    rows, mem = [], []
    try:
        quiet = side_by_side(servers, [50], args.duration, args.repeat)
        lone_quiet = {name: lone_latency_ms(s.port) for name, s in servers}
        crowds = []
        for name, s in servers:
            before = s.rss_kib()
            idle = open_idle(s.port, args.idle)
            time.sleep(1)
            mem.append((name, before, s.rss_kib(), args.idle))
            crowds.append((idle, SlowClients(s.port, args.slow)))
        time.sleep(2)
        busy = side_by_side(servers, [50], args.duration, args.repeat)
        lone_busy = {name: lone_latency_ms(s.port) for name, s in servers}
        for idle, slow in crowds:
            slow.close()
            for c in idle:
                c.close()
        for name, _ in servers:
            a, b = quiet[(name, 50)], busy[(name, 50)]
            rows.append((name, "none") + fmt(a) + ("%.1f ms" % lone_quiet[name], "", a["notes"]))
            rows.append((name, "%d slow + %d idle" % (args.slow, args.idle)) + fmt(b) +
                        ("%.1f ms" % lone_busy[name], "%.2f" % (b["rps"] / a["rps"]), b["notes"]))
    finally:
        ng.close()
        echo.close()
    print("### Beside %d slow clients and %d idle keep-alive connections (50 busy)\n" %
          (args.slow, args.idle))
    table(["server", "beside the load", "req/s", "p99", "slowest lone request", "req/s vs none",
           "notes"], rows)
    print("### Resident memory per idle keep-alive connection\n")
    table(["server", "RSS before", "RSS with idle connections", "per connection"],
          [(n, "%d KiB" % b, "%d KiB" % a, "%.2f KiB" % ((a - b) / k)) for n, b, a, k in mem])


def run_threads(args, tmp):
    sites = [("%d reader thread%s" % (n, "s" if n > 1 else ""),
              sf_site(tmp, args.build, ECHO_START, args.workers, threads=n, cpus="0,1"))
             for n in (1, 2)]
    try:
        r = side_by_side(sites, [50, 500], args.duration, args.repeat)
    finally:
        for _, s in sites:
            s.close()
    print("### sf echo site with 1 and 2 reader threads (server on cores 0-1, wrk on core 0)\n")
    table(["connections", "reader threads", "req/s", "p99", "notes"],
          [(c, name.split()[0]) + fmt(r[(name, c)]) + (r[(name, c)]["notes"],)
           for c in (50, 500) for name, _ in sites])


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=os.path.join(SOURCE, "build"))
    ap.add_argument("--duration", type=int, default=8, help="seconds per wrk run")
    ap.add_argument("--repeat", type=int, default=3, help="runs per point (median printed)")
    ap.add_argument("--workers", type=int, default=4, help="sf worker threads")
    ap.add_argument("--slow", type=int, default=200)
    ap.add_argument("--idle", type=int, default=3000)
    ap.add_argument("--only", default="direct,crowd,threads",
                    help="comma-separated parts: direct (with proxy), crowd, threads")
    args = ap.parse_args()
    args.build = os.path.abspath(args.build)
    subprocess.run([os.path.join(SOURCE, "scripts", "deps.sh"), "bench"], check=True)
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))  # servers inherit it
    os.sched_setaffinity(0, {CLIENT_CPU})

    commit = subprocess.run(["git", "-C", SOURCE, "rev-parse", "--short", "HEAD"],
                            capture_output=True, text=True).stdout.strip()
    print("Commit %s; nproc %d; load average at start %s; wrk -t1 %d s per run, median of %d; "
          "sf workers %d\n" % (commit, os.cpu_count(), " ".join(
              "%.2f" % x for x in os.getloadavg()), args.duration, args.repeat, args.workers))
    tmp = tempfile.mkdtemp(prefix="sf-bench-")
    parts = args.only.split(",")
    try:
        if "direct" in parts:
            run_direct_and_proxy(args, tmp)
        if "crowd" in parts:
            run_crowd(args, tmp)
        if "threads" in parts:
            run_threads(args, tmp)
    finally:
        shutil.rmtree(tmp, ignore_errors=True)
    print("Load average at the end: %s" % " ".join("%.2f" % x for x in os.getloadavg()))


if __name__ == "__main__":
    sys.stdout.reconfigure(line_buffering=True)
    main()
