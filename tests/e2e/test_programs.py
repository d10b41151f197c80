"""Every installed program answers --help and --version, as a newcomer
tries them, and the daemon refuses any other argument before it touches
anything."""

import subprocess
from pathlib import Path

import pytest

PROGRAMS = ["sbin/yulotifyd", "bin/yulotifyctl", "bin/yulotify-forward",
            "bin/yulotify-forward-dump", "bin/yulotify-sink"]


def run(prefix, program, *args):
    return subprocess.run([str(Path(prefix) / program)] + list(args),
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          timeout=10)


@pytest.mark.parametrize("program", PROGRAMS)
def test_help_and_version(yulotifyd_prefix, program):
    name = Path(program).name
    r = run(yulotifyd_prefix, program, "--version")
    assert r.returncode == 0 and r.stderr == b"", r
    words = r.stdout.decode().split()
    assert len(words) == 2 and words[0] == name, r.stdout
    assert words[1][0].isdigit(), r.stdout
    r = run(yulotifyd_prefix, program, "--help")
    assert r.returncode == 0 and r.stderr == b"", r
    assert r.stdout.decode().startswith("usage: " + name), r.stdout


# Should the daemon start after all, it finds empty scratch directories
# where its socket and configuration live, not the host's.
SCRATCH = ('for d in /run /usr/yulo/etc; do [ -d $d ] && '
           'mount -t tmpfs none $d; done; exec "$0" "$@"')


def test_the_daemon_takes_no_other_argument(yulotifyd_prefix, tmp_path):
    daemon = str(Path(yulotifyd_prefix) / "sbin/yulotifyd")
    for args in (["-d"], ["start"], ["--version", "--foreground"]):
        r = subprocess.run(["unshare", "--mount", "--propagation", "private",
                            "sh", "-c", SCRATCH, daemon] + args,
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                           timeout=10, cwd=tmp_path)
        assert r.returncode == 2, r
        assert b"takes no arguments" in r.stderr and r.stdout == b"", r
