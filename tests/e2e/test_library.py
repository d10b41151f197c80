"""libyulotifyd as installed, seen by a program outside the project: a small
consumer is built against the installation prefix with pkg-config and with
CMake's find_package(yulotifyd), and runs; the shared library exports its
public API and nothing else."""

import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

BUILD_TIMEOUT = 300

# Includes every installed header (they must compile with -Wall -Wextra
# -Werror) and uses one piece of every kind the library exports: a free
# function (DecodeQueuePath on a path as JsonCpp parses it), MonitorQueue, a
# class derived from Thread (its vtable and typeinfo), ControlClient, the
# JSON helpers, the logging macros and LOG_LEVEL, and LoadAll with a share
# resolver of the consumer's own (the library has none: it needs no platform
# library).
CONSUMER_SOURCE = r"""
#include <yulotifyd/control_client.h>
#include <yulotifyd/export.h>
#include <yulotifyd/fs_ids.h>
#include <yulotifyd/json_util.h>
#include <yulotifyd/log.h>
#include <yulotifyd/monitor_queue.h>
#include <yulotifyd/queue_consumer.h>
#include <yulotifyd/queue_path.h>
#include <yulotifyd/thread.h>

#include <sched.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

using namespace YULO::YULOTIFYD;

namespace {

class Waiter : public Thread {
 public:
  ~Waiter() override { Stop(); }
  std::atomic<bool> ran{false};

 protected:
  void Run() override {
    ran.store(true);
    while (!stop_flag.load()) SleepUnlessStopped(60000);
  }
};

}  // namespace

int main() {
  Json::Value line;
  if (!fromString("{\"event\":64,\"path\":\"/vol1/caf\\udce9\"}", line)) {
    return 2;
  }
  std::printf("path");
  for (unsigned char c : DecodeQueuePath(line["path"].asString())) {
    std::printf(" %02x", c);
  }
  std::printf("\n");

  MonitorQueue queue("/vol1/q", {MonitorQueue::MakeConfig(
      "Public", "/vol1/Public", "/Photos", true, QUEUE_EVENT_CREATE)});
  std::printf("monitor %d %d %d\n",
              queue.IsMonitoring("/vol1/Public/Photos/a.jpg", QUEUE_EVENT_CREATE),
              queue.IsMonitoring("/vol1/Public/Other/a.jpg", QUEUE_EVENT_CREATE),
              queue.IsMonitoring("/vol1/Public/Photos/a.jpg", QUEUE_EVENT_DELETE));

  std::vector<MonitorQueue> queues;
  int asked = 0;
  std::printf("share %d %d\n",
              MonitorQueue::LoadAll(queues, "/nonexistent-yulotifyd-conf",
                                    [&asked](const std::string&, std::string*) {
                                      ++asked;
                                      return false;
                                    }),
              asked);

  if (!Thread::InitThreadLock()) return 3;
  {
    Waiter waiter;
    const bool started = waiter.Start();
    while (started && !waiter.ran.load()) sched_yield();
    waiter.Stop();
    std::printf("thread %d %d\n", started, waiter.IsRunning());
  }
  Thread::DestroyThreadLock();

  // Nobody listens on a socket in a directory that does not exist.
  const ControlResult result =
      ControlClient("/nonexistent-yulotifyd-dir/sock").SetLogLevel("debug");
  std::printf("control %d\n",
              result.status == ControlResult::Status::kUnreachable);

  Json::Value object(Json::objectValue);
  object["a"] = 1;
  std::printf("json %s\n", toString(object).c_str());

  YULO_LOG_DEBUG("not written at level %d", LOG_LEVEL.load());
  std::printf("level %d\n", LOG_LEVEL.load());
  return 0;
}
"""

EXPECTED_OUTPUT = (
    "path 2f 76 6f 6c 31 2f 63 61 66 e9\n"
    "monitor 1 0 0\n"
    "share 0 0\n"
    "thread 1 0\n"
    "control 1\n"
    'json {"a":1}\n'
    "level 3\n"
)

CMAKE_PROJECT = """
cmake_minimum_required(VERSION 3.16)
project(consumer CXX)
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
find_package(yulotifyd 1.0 REQUIRED)
add_executable(consumer consumer.cc)
target_compile_options(consumer PRIVATE -Wall -Wextra -Werror)
target_link_libraries(consumer PRIVATE yulotifyd::yulotifyd)
"""

# Functions and variables of the library that are not its API: none of them
# may be exported.
PRIVATE_NAMES = [
    "ErrnoText", "MonotonicMillis", "SourceStem", "FormatLogLine",
    "Thread::Trampoline", "ControlClient::Exchange",
]

# What a dynamic symbol of the library may be: a name of its namespace, or
# the vtable or typeinfo of one of its classes.
PUBLIC_SYMBOL = re.compile(
    r"^(?:(?:vtable|typeinfo|typeinfo name) for )?YULO::YULOTIFYD::")


def run(args, **kwargs):
    result = subprocess.run(args, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, universal_newlines=True,
                            timeout=BUILD_TIMEOUT, **kwargs)
    assert result.returncode == 0, "%s failed:\n%s" % (
        " ".join(str(a) for a in args), result.stdout)
    return result.stdout


@pytest.fixture(scope="module")
def tools():
    missing = [t for t in ("g++", "pkg-config", "cmake", "nm", "readelf")
               if shutil.which(t) is None]
    if missing:
        pytest.fail("needed to build the consumer: %s" % ", ".join(missing),
                    pytrace=False)


@pytest.fixture(scope="module")
def installed(yulotifyd_prefix, tools):
    """(library path, directory of yulotifyd.pc) of the installation."""
    prefix = Path(yulotifyd_prefix)
    # lib/pkgconfig, or lib/<multiarch>/pkgconfig for the prefix /usr.
    pcs = sorted(prefix.glob("lib*/**/pkgconfig/yulotifyd.pc"))
    assert pcs, "no yulotifyd.pc installed under %s" % prefix
    pc_dir = pcs[0].parent
    library = pc_dir.parent / "libyulotifyd.so"
    assert library.exists(), "%s is not installed" % library
    return library, pc_dir


def consumer_env(pc_dir, library):
    env = dict(os.environ)
    env["PKG_CONFIG_PATH"] = str(pc_dir)
    env["LD_LIBRARY_PATH"] = str(library.parent)
    return env


def needed_libraries(binary):
    """The NEEDED entries of an ELF file."""
    dynamic = run(["readelf", "-d", str(binary)])
    return re.findall(r"\(NEEDED\)\s+Shared library: \[(.*)\]", dynamic)


def assert_links_only_libyulotifyd(binary):
    """Of the project's libraries, `binary` records libyulotifyd alone."""
    ours = [n for n in needed_libraries(binary) if n.startswith("libyulo")]
    assert len(ours) == 1 and ours[0].startswith("libyulotifyd.so."), \
        needed_libraries(binary)


def run_path(binary):
    """The RPATH and RUNPATH entries of an ELF file."""
    dynamic = run(["readelf", "-d", str(binary)])
    return re.findall(r"\((?:RPATH|RUNPATH)\)\s+Library r\w*path: \[(.*)\]",
                      dynamic)


def test_pkg_config_consumer_builds_and_runs(installed, tmp_path):
    library, pc_dir = installed
    env = consumer_env(pc_dir, library)
    source = tmp_path / "consumer.cc"
    source.write_text(CONSUMER_SOURCE)

    flags = run(["pkg-config", "--cflags", "--libs", "yulotifyd"],
                env=env).split()
    assert not [f for f in flags if "rpath" in f or f.startswith("-Wl,-R")], \
        "the .pc file imposes a run path: %s" % flags
    binary = tmp_path / "consumer"
    run(["g++", "-std=c++17", "-Wall", "-Wextra", "-Werror", str(source),
         "-o", str(binary)] + flags, env=env)
    assert run_path(binary) == [], "the consumer got a run path"
    assert run([str(binary)], env=env) == EXPECTED_OUTPUT
    assert_links_only_libyulotifyd(binary)

    # The flags for a static link (Libs.private, Requires) name libraries
    # that exist: the same program links and runs with them too.
    static_flags = run(["pkg-config", "--static", "--cflags", "--libs",
                        "yulotifyd"], env=env).split()
    assert not [f for f in static_flags if "yuloplatform" in f], static_flags
    static_binary = tmp_path / "consumer-static-flags"
    run(["g++", "-std=c++17", str(source), "-o", str(static_binary)] +
        static_flags, env=env)
    assert run([str(static_binary)], env=env) == EXPECTED_OUTPUT


def test_cmake_consumer_builds_and_runs(installed, yulotifyd_prefix,
                                        tmp_path):
    library, pc_dir = installed
    project = tmp_path / "project"
    project.mkdir()
    (project / "consumer.cc").write_text(CONSUMER_SOURCE)
    (project / "CMakeLists.txt").write_text(CMAKE_PROJECT)
    build = tmp_path / "build"
    # Only CMAKE_PREFIX_PATH: pkg-config must not be what finds the library.
    env = dict(os.environ)
    env.pop("PKG_CONFIG_PATH", None)
    run(["cmake", "-S", str(project), "-B", str(build),
         "-DCMAKE_PREFIX_PATH=%s" % yulotifyd_prefix], env=env)
    run(["cmake", "--build", str(build)], env=env)
    binary = build / "consumer"
    assert run([str(binary)], env=consumer_env(pc_dir, library)) == \
        EXPECTED_OUTPUT
    assert_links_only_libyulotifyd(binary)


def test_only_the_public_api_is_exported(installed):
    library, _ = installed
    listing = run(["nm", "-D", "--defined-only", "-C", str(library)])
    symbols = [line.split(" ", 2)[2] for line in listing.splitlines()
               if line.count(" ") >= 2]
    assert symbols, listing
    outside = [s for s in symbols if not PUBLIC_SYMBOL.match(s)]
    assert outside == [], "exported beyond the public API:\n" + \
        "\n".join(outside)
    private = [s for s in symbols
               if any("YULO::YULOTIFYD::%s(" % name in s or
                      "YULO::YULOTIFYD::%s[" % name in s
                      for name in PRIVATE_NAMES)]
    assert private == [], "private helpers exported:\n" + "\n".join(private)
    # The consumer above relies on these.
    for needed in ("YULO::YULOTIFYD::DecodeQueuePath(",
                   "YULO::YULOTIFYD::LOG_LEVEL",
                   "vtable for YULO::YULOTIFYD::Thread",
                   "typeinfo for YULO::YULOTIFYD::Thread"):
        assert any(s.startswith(needed) for s in symbols), needed


def test_library_needs_no_platform_library(installed):
    library, _ = installed
    names = needed_libraries(library.resolve())
    assert any(n.startswith("libjsoncpp.so.") for n in names), names
    assert not [n for n in names if n.startswith("libyulo")], names


def test_soname_is_the_major_version(installed):
    library, pc_dir = installed
    version = run(["pkg-config", "--modversion", "yulotifyd"],
                  env=consumer_env(pc_dir, library)).strip()
    dynamic = run(["readelf", "-d", str(library.resolve())])
    soname = re.search(r"\(SONAME\)\s+Library soname: \[(.*)\]", dynamic)
    assert soname is not None, dynamic
    assert soname.group(1) == "libyulotifyd.so.%s" % version.split(".")[0]
    assert (library.parent / soname.group(1)).exists()
