"""What every integration test shares: the Site fixture (sfhost on a site
built from config text), free ports, waits, clients and the real peers
(nginx, squid). Everything listens on 127.0.0.1 only."""

import os
import shutil
import signal
import socket
import socketserver
import subprocess
import tempfile
import threading
import time
import unittest

BUILD = os.path.abspath(os.environ.get("SF_BUILD_DIR", "build"))
SOURCE = os.path.abspath(os.environ.get("SF_SOURCE_DIR", "."))
BIN = os.path.join(BUILD, "bin")
SFHOST = os.path.join(BIN, "sfhost")
ECHO_MODULE = "/usr/lib/nginx/modules/ngx_http_echo_module.so"


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def poll(pred, timeout, what):
    """Waits until pred() holds; what() explains the failure."""
    deadline = time.monotonic() + timeout
    while not pred():
        if time.monotonic() > deadline:
            raise AssertionError(what())
        time.sleep(0.05)


def wait_port(port, proc=None, timeout=30.0, output=lambda: ""):
    """Waits until something listens on port; fails at once if proc ends."""
    def up():
        if proc is not None and proc.poll() is not None:
            raise AssertionError("exited with %s before listening on %d:\n%s"
                                 % (proc.returncode, port, output()))
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return True
        except OSError:
            return False
    poll(up, timeout, lambda: "nothing listens on %d:\n%s" % (port, output()))


def stop(proc, timeout=30.0):
    """SIGTERM, and the exit status (None if it had to be killed)."""
    if proc is None or proc.poll() is not None:
        return None if proc is None else proc.returncode
    proc.terminate()
    try:
        return proc.wait(timeout=timeout)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()
        return None


def clean_env(**extra):
    """The environment without this library's variables, plus extra."""
    env = {k: v for k, v in os.environ.items() if not k.startswith(("SF", "TAVO", "ESTAT"))}
    return dict(env, **extra)


def run_until(cmd, marker, sig=signal.SIGTERM, **kw):
    """Starts cmd, sends sig once its standard error has shown marker;
    returns the exit status and all of standard error."""
    p = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, **kw)
    seen = []
    for line in p.stderr:
        seen.append(line)
        if marker in line:
            break
    p.send_signal(sig)
    _, err = p.communicate(timeout=60)
    return p.returncode, "".join(seen) + err


def read(path):
    try:
        with open(path, errors="replace") as f:
            return f.read()
    except FileNotFoundError:
        return ""


def write(path, text):
    with open(path, "w") as f:
        f.write(text)


def remove_shm(tavodatdir):
    """Removes the statistics block sfhost made for this data directory."""
    base = "/dev/shm/estat" + "".join("_" if c in "/:\\" else c for c in tavodatdir)
    for name in (base + "_shm", base + "_mx"):
        if os.path.exists(name):
            os.unlink(name)


class Site:
    """A throw-away site: a root with etc/config.tcl (and start.tcl when
    given) that is also its data directory. @PORT@ in the scripts stands
    for self.port."""

    def __init__(self, config, start=None, port=None):
        self.tmp = tempfile.TemporaryDirectory(prefix="sf-site-")
        self.root = self.tmp.name
        self.port = port or free_port()
        os.makedirs(self.path("etc"))
        self.write("etc/config.tcl", config)
        if start is not None:
            self.write("etc/start.tcl", start)
        self.env = clean_env(TAVODATDIR=self.root)
        self.proc = self._err = None
        self.log = self.path("stderr.txt")

    def path(self, rel):
        return os.path.join(self.root, rel)

    def write(self, rel, text):
        write(self.path(rel), text.replace("@PORT@", str(self.port)))

    def command(self, *args):
        return [SFHOST, "-rootdir", self.root, "-datdir", self.root, *args]

    def run(self, *args, timeout=60):
        """Runs sfhost on this site to its end."""
        return subprocess.run(self.command(*args), cwd=self.root, env=self.env,
                              capture_output=True, text=True, timeout=timeout)

    def start(self, level=3):
        """Starts sfhost with its log on stderr (kept in stderr.txt)."""
        self._err = open(self.log, "w")
        self.proc = subprocess.Popen(self.command("-l", "-d", str(level)), cwd=self.root,
                                     env=self.env, stdout=subprocess.PIPE, stderr=self._err,
                                     text=True)
        return self.proc

    def wait_listening(self, *ports, timeout=30.0):
        """Waits until sfhost listens on ports (by default its own)."""
        for port in ports or (self.port,):
            wait_port(port, self.proc, timeout, self.text)

    def text(self):
        return read(self.log)

    def wait_log(self, needle, timeout=30.0):
        poll(lambda: needle in self.text(), timeout,
             lambda: "log never said %r:\n%s" % (needle, self.text()[-3000:]))

    def stop(self, timeout=30.0):
        return stop(self.proc, timeout)

    def close(self):
        self.stop()
        if self._err:
            self._err.close()
        remove_shm(self.root)
        self.tmp.cleanup()

    def started(self, level, ports):
        if level is not None:
            self.start(level)
            if ports is None or ports:
                self.wait_listening(*(ports or ()))
        return self


class SiteTest(unittest.TestCase):
    """The loopback fixture: a site started at level (not started when
    None), waited for on ports (its own port by default, none for ()), and
    closed when the test, or from setUpClass the class, ends."""

    def site(self, config, start=None, level=3, ports=None, port=None):
        s = Site(config, start, port)
        self.addCleanup(s.close)
        return s.started(level, ports)

    @classmethod
    def class_site(cls, config, start=None, level=3, ports=None, port=None):
        s = Site(config, start, port)
        cls.addClassCleanup(s.close)
        return s.started(level, ports)


def echo_config(extra="", bindextra=""):
    """The TCP echo service: a tcpReader queueing for a worker that echoes."""
    return """
set sf.log.level 0
set sf.tcp.backlog 512
set sf.qsize 2000
%s
mkQ echo
bind 127.0.0.1 @PORT@ %s
spinThread tcpReader 127.0.0.1 @PORT@ {enQ echo}
spinThread dummyWorker echo sf_echo
""" % (extra, bindextra)


def connect(port, timeout=30.0):
    s = socket.create_connection(("127.0.0.1", port), timeout=timeout)
    s.settimeout(timeout)
    return s


def recv_exactly(s, n):
    out = b""
    while len(out) < n:
        chunk = s.recv(n - len(out))
        if not chunk:
            break
        out += chunk
    return out


def echoes(s, msg):
    s.sendall(msg)
    return recv_exactly(s, len(msg)) == msg


def recv_all(sock, timeout=10):
    """Everything until the peer closes (a reset keeps what came first)."""
    sock.settimeout(timeout)
    data = b""
    try:
        while chunk := sock.recv(65536):
            data += chunk
    except ConnectionResetError:
        pass
    return data


def curl(*args):
    """curl's (status, body); status 0 when no answer came."""
    out = subprocess.run(["curl", "-s", "-S", "--max-time", "20", "-w", "\\n%{http_code}",
                          *args], capture_output=True, timeout=30)
    body, _, code = out.stdout.rpartition(b"\n")
    return int(code or 0), body


class Backend(socketserver.ThreadingTCPServer):
    """A scripted HTTP backend on a free port: answer(path, fields, request)
    gives the bytes sent back for each request (fields: lower-case names to
    values; request: head and body as received). An answer that is not an
    HTTP response is sent and the connection closed. heads records every
    request head."""
    daemon_threads = True

    def __init__(self, answer):
        super().__init__(("127.0.0.1", 0), _BackendHandler)
        self.answer = answer
        self.port = self.server_address[1]
        self.heads = []
        threading.Thread(target=self.serve_forever, daemon=True).start()


class _BackendHandler(socketserver.StreamRequestHandler):
    def handle(self):
        while True:
            head = b""
            while not head.endswith(b"\r\n\r\n"):
                line = self.rfile.readline()
                if not line:
                    return
                head += line
            lines = head.decode("latin-1").split("\r\n")
            fields = {name.lower(): value.strip()
                      for name, _, value in (l.partition(":") for l in lines[1:] if ":" in l)}
            body = self.rfile.read(int(fields.get("content-length", "0")))
            self.server.heads.append(head.decode("latin-1"))
            answer = self.server.answer(lines[0].split(" ")[1], fields, head + body)
            self.wfile.write(answer)
            if not answer.startswith(b"HTTP/"):
                return


class Nginx:
    """nginx in the foreground with a temporary prefix; extra goes into its
    one server block."""

    def __init__(self, extra=""):
        self.dir = d = tempfile.mkdtemp(prefix="sf-nginx-")
        os.chmod(d, 0o755)
        self.port = free_port()
        os.makedirs(os.path.join(d, "www", "static"))
        write(os.path.join(d, "www", "chunked"), "this body goes out chunked\n" * 40)
        write(os.path.join(d, "www", "static", "page.txt"), "static page\n")
        load = "load_module %s;" % ECHO_MODULE if os.path.exists(ECHO_MODULE) else ""
        temps = "".join(f"{n}_temp_path {d}/{n}; "
                        for n in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        write(os.path.join(d, "nginx.conf"), f"""
{load}
daemon off;
master_process off;
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
    server {{
        listen 127.0.0.1:{self.port};
        location = /hello {{ return 200 "hello from nginx\\n"; }}
        location = /echo {{ echo_read_request_body; echo -n $request_body; }}
        location = /chunked {{ root {d}/www; sub_filter_types text/plain; sub_filter 'zz' 'zz'; }}
        location /static/ {{ root {d}/www; }}
        {extra}
    }}
}}
""")
        self.proc = subprocess.Popen(["nginx", "-p", d, "-c", os.path.join(d, "nginx.conf")],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_port(self.port, self.proc)

    def close(self):
        stop(self.proc, timeout=10)
        shutil.rmtree(self.dir, ignore_errors=True)


class Squid:
    """squid as a forward proxy that serves only the clients that
    authenticate by auth's auth_param lines. @PASSWD@ in them names a file
    that holds passwd."""

    def __init__(self, auth, passwd=""):
        self.dir = d = tempfile.mkdtemp(prefix="sf-squid-")
        os.chmod(d, 0o777)  # squid drops to its own user when started as root
        self.port = free_port()
        write(os.path.join(d, "passwd"), passwd + "\n")
        write(os.path.join(d, "squid.conf"), f"""
http_port 127.0.0.1:{self.port}
pid_filename {d}/squid.pid
cache_log {d}/cache.log
access_log none
cache deny all
coredump_dir {d}
netdb_filename none
{auth.replace("@PASSWD@", os.path.join(d, "passwd"))}
acl authed proxy_auth REQUIRED
http_access allow localhost authed
http_access deny all
shutdown_lifetime 0 seconds
""")
        self.proc = subprocess.Popen(["squid", "-N", "-f", os.path.join(d, "squid.conf")], cwd=d,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_port(self.port, self.proc, timeout=60)

    def close(self):
        stop(self.proc)
        shutil.rmtree(self.dir, ignore_errors=True)
