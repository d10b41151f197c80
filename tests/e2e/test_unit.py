"""The installed systemd unit: it passes `systemd-analyze verify`, its
exposure rating stays low, and the capabilities it keeps are enough for the
daemon to do its work.

The whole pipeline suites run under the unit's capabilities too, with
--unit-caps (scripts/test.sh does); here one short run shows it in every
test run, and that the daemon really has no more than those.
"""

import os
import re
import shutil
import signal
import stat
import subprocess
import time
from pathlib import Path

import pytest

from harness import (CONF_ROOT, RUN_STATUS_PATH, SOCKET_PATH, monitor,
                     unit_capabilities, wait_until)

# The exposure rating must stay at or below this ("OK" or better).
MAX_EXPOSURE = 5.0
LINE_TIMEOUT = 10.0


@pytest.fixture(scope="module")
def unit(yulotifyd_prefix):
    path = Path(yulotifyd_prefix) / "lib" / "systemd" / "system" / \
        "yulotifyd.service"
    assert path.is_file(), "%s is not installed" % path
    if shutil.which("systemd-analyze") is None:
        pytest.fail("systemd-analyze (package systemd) is not installed",
                    pytrace=False)
    return path


def directives(unit_path):
    """Every Key=value line of the unit, in order, as (key, value)."""
    out = []
    for line in unit_path.read_text().splitlines():
        line = line.strip()
        if not line or line.startswith(("#", ";", "[")):
            continue
        key, _, value = line.partition("=")
        out.append((key, value))
    return out


def values(unit_path, key):
    return [v for k, v in directives(unit_path) if k == key]


def test_verify_is_clean(unit):
    # The unit as installed: ExecStart names the installed daemon, which
    # exists, so nothing needs to be left out of the check.
    result = subprocess.run(["systemd-analyze", "verify", str(unit)],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            timeout=120)
    output = result.stdout.decode(errors="replace")
    assert result.returncode == 0, output
    about_us = [l for l in output.splitlines()
                if "yulotifyd" in l or str(unit.parent) in l]
    assert about_us == [], output


def test_exposure_level(unit):
    result = subprocess.run(
        ["systemd-analyze", "security", "--offline=yes", str(unit)],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=120)
    output = result.stdout.decode(errors="replace")
    assert result.returncode == 0, output
    m = re.search(r"Overall exposure level for yulotifyd\.service: "
                  r"(\d+(?:\.\d+)?) ", output)
    assert m is not None, output
    assert float(m.group(1)) <= MAX_EXPOSURE, output


def test_unit_keeps_only_the_needed_capabilities(unit, yulotifyd_prefix):
    assert sorted(unit_capabilities(yulotifyd_prefix)) == sorted([
        "sys_admin",        # file-system-wide notification marks
        "dac_read_search",  # open_by_handle_at
        "dac_override",     # root-owned subscriptions' queue files
        "setuid",           # other subscriptions' queue files, as their
        "setgid",           # owners; the control socket's group
    ])
    assert values(unit, "NoNewPrivileges") == ["yes"]
    assert values(unit, "AmbientCapabilities") == []


def test_system_call_filter_lets_the_appliance_calls_through(unit):
    # The first SystemCallFilter= decides what happens to calls it does not
    # name: with a deny list ("~") they are allowed, so the appliance
    # kernel's calls 822 to 824 (unknown to the service manager) reach the
    # kernel, and a stock kernel fails them with ENOSYS. An allow list
    # would make them fail with another error and stop the fanotify
    # fallback (or, on the appliance, break the calls themselves).
    filters = values(unit, "SystemCallFilter")
    assert filters and filters[0].startswith("~"), filters
    denied = set(filters[0][1:].split())
    assert {"@privileged", "@mount", "@module", "@debug", "@raw-io",
            "@reboot", "@swap", "@clock", "@cpu-emulation",
            "@obsolete"} <= denied, denied
    # What the capabilities are kept for is taken back from @privileged.
    allowed = set(" ".join(filters[1:]).split())
    assert {"fanotify_init", "fanotify_mark", "open_by_handle_at",
            "setfsuid", "setfsgid", "setgroups"} <= allowed, allowed
    assert values(unit, "SystemCallArchitectures") == ["native"]


def test_run_status_and_socket_directories_stay_writable(unit):
    # "full" leaves /var, /srv, /home and the data volumes writable, where
    # consumers keep their queue files; /usr and /etc are read-only, so the
    # run-status file's and the socket's directories are named.
    assert values(unit, "ProtectSystem") == ["full"]
    # ("-": ignored when missing.)
    writable = {p.lstrip("-")
                for p in " ".join(values(unit, "ReadWritePaths")).split()}
    assert writable == {os.path.dirname(RUN_STATUS_PATH),
                        os.path.dirname(SOCKET_PATH)}, writable


def test_tmpfiles_make_the_configuration_directories(yulotifyd_prefix,
                                                    tmp_path):
    # The installed tmpfiles.d file, applied under a scratch root as
    # systemd-tmpfiles applies it at install and boot: the three
    # directories, root's, user.d open to every user as a crontab spool.
    conf = Path(yulotifyd_prefix) / "lib" / "tmpfiles.d" / "yulotifyd.conf"
    assert conf.is_file(), "%s is not installed" % conf
    result = subprocess.run(["systemd-tmpfiles", "--create",
                             "--root=%s" % tmp_path, str(conf)],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            timeout=60)
    assert result.returncode == 0, result.stdout.decode()
    root = Path(str(tmp_path) + CONF_ROOT)
    modes = {}
    for name in ("system.d", "app.d", "user.d"):
        st = os.lstat(root / name)
        assert stat.S_ISDIR(st.st_mode)
        modes[name] = (stat.S_IMODE(st.st_mode), st.st_uid, st.st_gid)
    assert modes == {"system.d": (0o755, 0, 0), "app.d": (0o755, 0, 0),
                     "user.d": (0o1733, 0, 0)}


def test_path_unit_starts_the_service_and_the_service_waits_for_work(unit):
    # The service starts only with a subscription (no start-stop loop on a
    # fresh install); the path unit starts it when one appears.
    globs = values(unit, "ConditionPathExistsGlob")
    assert sorted(globs) == sorted("|%s/%s/*.json" % (CONF_ROOT, d)
                                   for d in ("system.d", "app.d", "user.d"))
    path_unit = unit.parent / "yulotifyd.path"
    assert path_unit.is_file(), "%s is not installed" % path_unit
    assert sorted(values(path_unit, "PathChanged")) == sorted(
        "%s/%s" % (CONF_ROOT, d) for d in ("system.d", "app.d", "user.d"))
    assert values(path_unit, "Unit") == ["yulotifyd.service"]
    result = subprocess.run(["systemd-analyze", "verify", str(path_unit)],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            timeout=120)
    assert result.returncode == 0, result.stdout.decode()


# ----------------------------------------------------------------------
# The daemon under the unit's capabilities.


def capability_numbers():
    """setpriv's capability names in the kernel's order."""
    result = subprocess.run(["setpriv", "--list-caps"],
                            stdout=subprocess.PIPE, check=True)
    return {name: i for i, name in
            enumerate(result.stdout.decode().split())}


def status_masks(pid):
    masks = {}
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            key, _, value = line.partition(":")
            if key in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb",
                       "NoNewPrivs", "Groups"):
                masks[key] = value.strip()
    return masks


def test_daemon_works_with_the_units_capabilities(make_appliance,
                                                  yulotifyd_prefix):
    app = make_appliance(unit_caps=True)
    app.add_volume(1, "/vol1")
    app.add_share("Public", "/vol1/Public")
    q = app.queue_path("q.queue")
    app.add_queue("system", "q.json", q,
                  [monitor("Public", events=["create", "delete", "move"])])
    # A root-owned subscription whose consumer keeps its queue file in a
    # directory of its own, closed to others.
    consumer_q = "/vol1/consumer/q.queue"
    app.add_queue("system", "consumer.json", consumer_q,
                  [monitor("Public", events=["create"])])

    def consumer_dir(app):
        d = app.ns_path("/vol1/consumer")
        d.mkdir(mode=0o700)
        os.chown(d, 65534, 65534)

    app.start(before_exec=consumer_dir)
    app.wait_ready()

    numbers = capability_numbers()
    expected = 0
    for name in unit_capabilities(yulotifyd_prefix):
        expected |= 1 << numbers[name]
    masks = status_masks(app.pid)
    for key in ("CapBnd", "CapPrm", "CapEff"):
        assert int(masks[key], 16) == expected, (key, masks)
    assert int(masks["CapInh"], 16) == 0 and int(masks["CapAmb"], 16) == 0
    assert masks["NoNewPrivs"] == "1"
    # No supplementary groups are kept.
    assert masks["Groups"] == "", masks

    share = app.ns_path("/vol1/Public")
    (share / "a").write_text("a")
    os.rename(share / "a", share / "b")
    (share / "b").unlink()

    def lines():
        ls = app.read_queue(q)
        return ls if len(ls) >= 3 else None

    got = wait_until(lines, LINE_TIMEOUT)
    assert got == [
        {"event": 64, "is_dir": False, "path": "/vol1/Public/a"},
        {"event": 256, "is_dir": False, "path": "/vol1/Public/b",
         "path_old": "/vol1/Public/a"},
        {"event": 128, "is_dir": False, "path": "/vol1/Public/b"},
    ], "%r%s" % (app.read_queue(q), app.diagnostics())
    # The rename is a creation of its new name to a queue that wants only
    # creations.
    expected = ["/vol1/Public/a", "/vol1/Public/b"]
    consumer = app.ns_path(consumer_q)
    assert wait_until(lambda: [l["path"] for l in app.read_queue(consumer)]
                      == expected, LINE_TIMEOUT), app.read_queue(consumer)
    # The kernel layer came up on fanotify, not inert.
    assert app.count_logs(r"yulo_notify_init|add.watch") == 0, app.logs
    app.signal(signal.SIGTERM)
    assert app.wait_exit() == 0
    assert app.read_run_status() == {"status": "stop"}
    assert not app.socket_path.exists()
