"""pytest wiring of the end-to-end harness (see harness.py and README.md)."""

import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent))

import harness  # noqa: E402


def pytest_addoption(parser):
    parser.addoption(
        "--prefix", action="store", default=None,
        help="install prefix of the yulotifyd under test "
             "(default: $YULOTIFYD_PREFIX)")
    parser.addoption(
        "--unit-caps", action="store_true", default=False,
        help="run every daemon with only the capabilities of the installed "
             "unit (its CapabilityBoundingSet=) and no new privileges")


@pytest.fixture(scope="session")
def yulotifyd_prefix(pytestconfig) -> Path:
    """The install prefix under test; fails every test clearly if there is
    no usable installation or the machine cannot run the harness."""
    problems = harness.machine_problems(
        "they create mount namespaces",
        ("unshare", "nsenter", "mount", "setpriv"))
    try:
        prefix = harness.find_prefix(pytestconfig.getoption("--prefix"))
        harness.daemon_binary(prefix)
    except harness.HarnessError as e:
        problems.append(str(e))
        prefix = None
    if problems:
        pytest.fail("cannot run end-to-end tests:\n  " + "\n  ".join(problems),
                    pytrace=False)
    return prefix


@pytest.fixture
def make_appliance(tmp_path, yulotifyd_prefix, pytestconfig):
    """Factory of Appliances in this test's temporary directory; every one
    is stopped when the test ends, whatever its outcome. With --unit-caps
    every daemon runs with the unit's capabilities only."""
    created = []

    def factory(**kwargs) -> harness.Appliance:
        kwargs.setdefault("prefix", yulotifyd_prefix)
        if "program" not in kwargs:
            kwargs.setdefault("unit_caps",
                              pytestconfig.getoption("--unit-caps"))
        appliance = harness.Appliance(tmp_path / ("appliance%d" % len(created)),
                                      **kwargs)
        created.append(appliance)
        return appliance

    yield factory
    harness.end_all(created, harness.Appliance.stop)


@pytest.fixture
def appliance(make_appliance) -> harness.Appliance:
    """One unstarted appliance running the installed yulotifyd."""
    return make_appliance()
