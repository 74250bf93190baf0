"""Installs the build into a temporary prefix, builds a small program against
it through the CMake package and through pkg-config, and runs it; it needs
the public headers, the exported link interface and the shared library, and
no Tcl of its own. Also starts the installed sfhost on its installed site."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

from sfnet_support import free_port
from test_sfhost_basic import clean_env, remove_shm, run_until

BUILD = os.environ.get("SF_BUILD_DIR", "")

CONSUMER_CPP = r"""
#include <sf/sflib.h>

#include <cstdio>
#include <string>

static std::string g_seen;

static void keep(std::uint32_t, std::uint32_t, std::uint32_t level, const char*, std::uint32_t,
                 std::uint32_t, const char* msg, int code, const char*, int) {
  g_seen += std::to_string(level) + ":" + msg + ":" + std::to_string(code) + "\n";
}

int main() {
  sf::setlog(keep);
  sf::g_logLevel.store(3);
  sf::Buffer b;
  b.append("hello");
  b.insert(5, ", consumer");
  std::printf("buffer=%.*s size=%zu\n", static_cast<int>(b.size()), b.data, b.size());
  try {
    b.getROPtr(99);
  } catch (const sf::Xbounds& x) {
    std::printf("caught=%s\n", x.str().c_str());
  }
  SF_LOG(1, "logged through %s", "the library");
  std::printf("%s", g_seen.c_str());
  return 0;
}
"""

CMAKE_LISTS = """
cmake_minimum_required(VERSION 3.18)
project(consumer CXX)
set(CMAKE_CXX_STANDARD 17)
%s
add_executable(consumer main.cpp)
target_link_libraries(consumer PRIVATE %s)
"""


def run(cmd, **kw):
    proc = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=300, **kw)
    if proc.returncode != 0:
        raise AssertionError("%s failed (%d):\n%s" % (" ".join(cmd), proc.returncode, proc.stdout))
    return proc.stdout


class InstallConsumer(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not BUILD:
            raise unittest.SkipTest("SF_BUILD_DIR is not set")
        cls.tmp = tempfile.mkdtemp(prefix="sf-consumer-")
        cls.prefix = os.path.join(cls.tmp, "prefix")
        try:
            run(["cmake", "--install", BUILD, "--prefix", cls.prefix])
        except BaseException:
            shutil.rmtree(cls.tmp, ignore_errors=True)  # tearDownClass will not run
            raise
        # A sanitizer build installs an instrumented library; the consumer
        # must be built the same way to link against it.
        with open(os.path.join(BUILD, "CMakeCache.txt")) as f:
            m = re.search(r"^SF_SANITIZE:[A-Z]+=(.+)$", f.read(), re.M)
        cls.cxx_flags = "-fsanitize=%s" % m.group(1).strip() if m else ""

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def test_installed_layout(self):
        inc = os.path.join(self.prefix, "include", "sf")
        libdir = self.libdir()
        for path in (os.path.join(inc, "sflib.h"), os.path.join(inc, "sferr.h"),
                     os.path.join(inc, "i_mx.h"), os.path.join(libdir, "libsf.so"),
                     os.path.join(libdir, "cmake", "sf", "sfConfig.cmake"),
                     os.path.join(self.prefix, "etc", "sf_events.msg")):
            self.assertTrue(os.path.exists(path), path)
        # Internal headers stay in the source tree; installed public headers
        # include only each other and the standard library (no Tcl, no OS).
        self.assertFalse(os.path.exists(os.path.join(inc, "platform")))
        self.assertFalse(os.path.exists(os.path.join(inc, "detail")))
        for root, _, files in os.walk(inc):
            for name in files:
                with open(os.path.join(root, name)) as f:
                    for line in f:
                        m = re.match(r'\s*#\s*include\s+"([^"]+)"', line)
                        if m:
                            self.assertTrue(
                                os.path.isfile(os.path.join(self.prefix, "include", m.group(1))),
                                "%s includes %s, which is not installed" % (name, m.group(1)))
                        self.assertNotRegex(line, r"#\s*include\s+<tcl\.h>", name)

    def test_installed_sfhost_finds_its_site_without_options(self):
        self.addCleanup(remove_shm, self.prefix)
        env = clean_env(TAVODATDIR=self.prefix, SF_HTTP_PORT=str(free_port()))
        status, err = run_until([os.path.join(self.prefix, "bin", "sfhost"), "-l"],
                                "started: root", cwd=self.prefix, env=env)
        self.assertEqual(status, 0, err)
        self.assertIn("started: root %s," % self.prefix, err)

    def test_find_package_consumer(self):
        self.build_and_run("package", CMAKE_LISTS % ("find_package(sf CONFIG REQUIRED)", "sf::sf"),
                           ["-DCMAKE_PREFIX_PATH=" + self.prefix])

    def test_pkg_config_consumer(self):
        env = dict(os.environ, PKG_CONFIG_PATH=os.path.join(self.libdir(), "pkgconfig"))
        out = run(["pkg-config", "--libs", "sf"], env=env)
        self.assertNotIn("tcl", out, "the consumer link line must not need Tcl")
        self.build_and_run("pkgconfig", CMAKE_LISTS % (
            "find_package(PkgConfig REQUIRED)\npkg_check_modules(SF REQUIRED IMPORTED_TARGET sf)",
            "PkgConfig::SF"), [], env)

    def libdir(self):
        for name in ("lib", "lib64", os.path.join("lib", "x86_64-linux-gnu")):
            if os.path.exists(os.path.join(self.prefix, name, "pkgconfig", "sf.pc")):
                return os.path.join(self.prefix, name)
        raise AssertionError("no library directory with sf.pc under %s" % self.prefix)

    def build_and_run(self, name, cmakelists, defines, env=None):
        src = os.path.join(self.tmp, name)
        os.makedirs(src)
        for file, text in (("CMakeLists.txt", cmakelists), ("main.cpp", CONSUMER_CPP)):
            with open(os.path.join(src, file), "w") as f:
                f.write(text)
        build = src + "-build"
        configure = ["cmake", "-S", src, "-B", build] + defines
        if shutil.which("ninja"):
            configure += ["-G", "Ninja"]
        if self.cxx_flags:
            configure.append("-DCMAKE_CXX_FLAGS=%s" % self.cxx_flags)
        run(configure, env=env)
        run(["cmake", "--build", build], env=env)
        run_env = dict(env or os.environ, LD_LIBRARY_PATH=self.libdir())
        out = run([os.path.join(build, "consumer")], env=run_env)
        self.assertIn("buffer=hello, consumer size=15\n", out)
        self.assertIn("caught=2-2 range=15; index=99\n", out)
        self.assertRegex(out, r"3:exception getRO:Xbounds\(static_cast<int>\(used_sz\), "
                              r"static_cast<int>\(offset\)\) thrown at \S*sf/sflib\.h\.\d+:0\n")
        self.assertIn("1:logged through the library:0\n", out)


if __name__ == "__main__":
    unittest.main(verbosity=2)
