"""HTTP integration helpers: nginx, squid and sfhost on loopback with
throw-away configurations, and the sf_httpclient driver."""

import os
import shutil
import socket
import subprocess
import tempfile
import time

BUILD = os.environ.get("SF_BUILD_DIR", "build")
SOURCE = os.environ.get("SF_SOURCE_DIR", ".")
BIN = os.path.join(BUILD, "bin")
ECHO_MODULE = "/usr/lib/nginx/modules/ngx_http_echo_module.so"


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_port(port, proc=None, timeout=20.0):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if proc is not None and proc.poll() is not None:
            raise RuntimeError("process exited with %s before listening" % proc.returncode)
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=1):
                return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError("nothing listens on port %d after %.0f s" % (port, timeout))


def stop(proc, timeout=10.0):
    if proc is None or proc.poll() is not None:
        return
    proc.terminate()
    try:
        proc.wait(timeout=timeout)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()


NGINX_SITE = """
    server {{
        listen 127.0.0.1:{port};
        location = /hello {{ return 200 "hello from nginx\\n"; }}
        location = /echo {{ echo_read_request_body; echo -n $request_body; }}
        location = /chunked {{ root {www}; sub_filter_types text/plain; sub_filter 'zz' 'zz'; }}
        location /static/ {{ root {www}; }}
        location = /teapot {{ return 418 "short and stout\\n"; }}
        {extra}
    }}
"""


def write(path, text):
    with open(path, "w") as f:
        f.write(text)


class Nginx:
    """nginx in the foreground with a temporary prefix; site is a server
    block template like NGINX_SITE."""

    def __init__(self, site=NGINX_SITE, extra="", workers=1, master=False):
        self.dir = tempfile.mkdtemp(prefix="sf-nginx-")
        os.chmod(self.dir, 0o755)
        self.port = free_port()
        self.www = os.path.join(self.dir, "www")
        os.makedirs(os.path.join(self.www, "static"))
        write(os.path.join(self.www, "chunked"), "this body goes out chunked\n" * 40)
        write(os.path.join(self.www, "static", "page.txt"), "static page\n")
        load = "load_module %s;" % ECHO_MODULE if os.path.exists(ECHO_MODULE) else ""
        d = self.dir
        temps = "".join(f"{n}_temp_path {d}/{n}; " for n in
                        ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        conf = f"""
{load}
daemon off;
master_process {"on" if master else "off"};
worker_processes {workers};
pid {d}/nginx.pid;
error_log {d}/error.log;
events {{ worker_connections 4096; }}
http {{
    access_log off;
    default_type text/plain;
    {temps}
    keepalive_requests 1000000;
    client_body_buffer_size 1m;
    client_max_body_size 10m;
    {site.format(port=self.port, www=self.www, extra=extra)}
}}
"""
        self.conf = os.path.join(d, "nginx.conf")
        write(self.conf, conf)
        self.proc = subprocess.Popen(["nginx", "-p", d, "-c", self.conf],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_port(self.port, self.proc)

    def close(self):
        stop(self.proc)
        shutil.rmtree(self.dir, ignore_errors=True)


class Squid:
    """squid as a forward proxy, no authentication."""

    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="sf-squid-")
        os.chmod(self.dir, 0o777)  # squid drops to its own user when started as root
        self.port = free_port()
        d = self.dir
        conf = f"""
http_port 127.0.0.1:{self.port}
pid_filename {d}/squid.pid
cache_log {d}/cache.log
access_log none
cache deny all
coredump_dir {d}
netdb_filename none
http_access allow localhost
http_access deny all
shutdown_lifetime 0 seconds
"""
        self.conf = os.path.join(d, "squid.conf")
        write(self.conf, conf)
        self.proc = subprocess.Popen(["squid", "-N", "-f", self.conf], cwd=d,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_port(self.port, self.proc, timeout=60)

    def close(self):
        stop(self.proc, timeout=30)
        shutil.rmtree(self.dir, ignore_errors=True)


def client(*args, timeout=30):
    """Runs sf_httpclient; returns (exit status, [(status, body bytes)...], raw)."""
    out = subprocess.run([os.path.join(BIN, "sf_httpclient")] + [str(a) for a in args],
                         capture_output=True, timeout=timeout)
    raw = out.stdout
    answers = []
    while raw.startswith(b"status "):
        line, raw = raw.split(b"\n", 1)
        status = int(line.split()[1])
        line, raw = raw.split(b"\n", 1)
        n = int(line.split()[1])
        answers.append((status, raw[:n]))
        raw = raw[n + 1:]
    return out.returncode, answers, out.stdout + out.stderr


class Site:
    """sfhost over a temporary root whose etc/ holds config.tcl and start.tcl;
    logs go to root/data."""

    def __init__(self, config, start, level=3):
        self.root = tempfile.mkdtemp(prefix="sf-site-")
        os.makedirs(os.path.join(self.root, "etc"))
        self.data = os.path.join(self.root, "data")
        os.makedirs(self.data)
        write(os.path.join(self.root, "etc", "config.tcl"), config)
        write(os.path.join(self.root, "etc", "start.tcl"), start)
        msg = os.path.join(SOURCE, "etc", "sf_events.msg")
        if os.path.exists(msg):
            shutil.copy(msg, os.path.join(self.root, "etc"))
        env = dict(os.environ, SFROOTDIR=self.root, SFDATDIR=self.data)
        self.stderr = open(os.path.join(self.root, "stderr.txt"), "wb")
        self.proc = subprocess.Popen([os.path.join(BIN, "sfhost"), "-d", str(level)],
                                     cwd=self.data, env=env,
                                     stdout=subprocess.DEVNULL, stderr=self.stderr)

    def log(self):
        text = ""
        for name in sorted(n for n in os.listdir(self.data) if n.endswith(".log")):
            with open(os.path.join(self.data, name), errors="replace") as f:
                text += f.read()
        return text

    def close(self):
        stop(self.proc)
        self.stderr.close()
        shutil.rmtree(self.root, ignore_errors=True)
