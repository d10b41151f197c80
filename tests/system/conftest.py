"""pytest wiring of the system tests (see README.md): the Debian packages
under test and the containers that boot systemd to run them."""

import os
import shutil
import sys
from pathlib import Path

import pytest

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
sys.path.insert(0, str(HERE.parent / "e2e"))

import container  # noqa: E402
from harness import (CONF_ROOT, RUN_STATUS_PATH, end_all,  # noqa: E402
                     machine_problems)

# The packages a system runs: the daemon with its libraries, and the
# forwarder. The development package has nothing to run.
PACKAGES = ("libyulotifyd1", "libyuloplatform0", "yulotifyd", "yulotify-forward")


def pytest_addoption(parser):
    parser.addoption(
        "--packages", action="store", default=None,
        help="directory of the .deb files under test, as scripts/package.sh "
             "leaves them (default: $YULOTIFYD_PACKAGE_DIR)")


@pytest.fixture(scope="session")
def debs(pytestconfig):
    """The .deb files under test, by package name; fails every test clearly
    when the machine cannot run them."""
    problems = machine_problems("they boot systemd in new namespaces",
                                ("unshare", "nsenter", "pivot_root",
                                 "setpriv"))
    if not Path("/lib/systemd/systemd").exists():
        problems.append("systemd is not installed")
    if shutil.which("nats-server") is None:
        problems.append("nats-server is not installed (scripts/deps.sh)")
    where = pytestconfig.getoption("--packages") or \
        os.environ.get("YULOTIFYD_PACKAGE_DIR")
    found = {}
    if not where:
        problems.append("no packages: pass --packages DIR or set "
                        "YULOTIFYD_PACKAGE_DIR (scripts/package.sh DIR "
                        "builds them)")
    else:
        for name in PACKAGES:
            files = sorted(Path(where).resolve().glob(name + "_*.deb"))
            if len(files) != 1:
                problems.append("%s: %d files %s_*.deb, not one" %
                                (where, len(files), name))
            else:
                found[name] = str(files[0])
    if problems:
        pytest.fail("cannot run the system tests:\n  " +
                    "\n  ".join(problems), pytrace=False)
    return found


@pytest.fixture(scope="module")
def make_container(tmp_path_factory):
    """Factory of booted Containers; every one is ended and its cgroup
    removed when the module's tests are done, whatever their outcome."""
    made = []
    logs = tmp_path_factory.mktemp("containers")

    def factory(name):
        box = container.Container(name, logs / (name + ".log"))
        made.append(box)
        box.boot()
        return box

    yield factory
    end_all(made, container.Container.close)


def install(box, debs):
    """Installs the packages inside, as an administrator does; every
    dependency is already there (the container's / is the host's).

    The container starts as a copy of the host, so first it is made the
    machine the packages meet on a fresh install: without the host's
    policy-rc.d (build machines and CI images forbid starting services
    with it) and without what earlier runs on the host left in the
    configuration root."""
    box.run(["rm", "-rf", "/usr/sbin/policy-rc.d", CONF_ROOT,
             RUN_STATUS_PATH])
    box.run(["dpkg", "-i"] + [debs[name] for name in PACKAGES], timeout=180)
