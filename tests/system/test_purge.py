"""A purge of the packages, after the service has run, leaves nothing of
theirs on the system: no unit, no enablement link, no group, no control
socket, no run-status file, no empty configuration directory. Only the
subscription files administrators and users put there stay, with their
directories.
"""

import json

from conftest import PACKAGES, install
from container import wait_for
from harness import CONF_ROOT, RUN_STATUS_PATH, SOCKET_PATH


def test_purge_leaves_no_unit_group_or_socket(make_container, debs):
    box = make_container("yulopurge")
    install(box, debs)
    box.run(["mkdir", "-p", "/srv/vol1", "/etc/samba"])
    box.run(["sh", "-c", "cat > /usr/yulo/etc/volumes.json"], input=json.dumps(
        {"volumes": [{"id": 1, "kind": 0, "mount_point": "/srv/vol1"}]}))
    box.run(["sh", "-c", "cat > /etc/samba/smb.conf"],
            input="[Public]\n   path = /srv/vol1/Public\n")
    box.run(["mount", "-t", "tmpfs", "tmpfs", "/srv/vol1"])
    box.run(["mkdir", "/srv/vol1/Public"])
    box.run(["sh", "-c", "cat > %s/system.d/a.json" % CONF_ROOT],
            input=json.dumps({"queue": "/var/tmp/a.queue", "monitors": [
                {"share": "Public"}]}))
    wait_for(lambda: box.run(["test", "-S", SOCKET_PATH],
                             check=False).returncode == 0, 10,
             "the daemon's control socket")

    box.run(["dpkg", "--purge"] + list(reversed(PACKAGES)), timeout=180)
    # (Both list commands exit with 1 when they find nothing.)
    units = box.run(["systemctl", "list-unit-files", "--no-legend",
                     "yulotify*"], check=False).stdout
    assert units.strip() == "", units
    loaded = box.run(["systemctl", "list-units", "--all", "--no-legend",
                      "yulotify*"], check=False).stdout
    assert loaded.strip() == "", loaded
    left = box.run(["sh", "-c", "ls -d /lib/systemd/system/yulotify* "
                    "/etc/systemd/system/*/yulotify* "
                    "/usr/lib/sysusers.d/yulotifyd.conf "
                    "/usr/lib/tmpfiles.d/yulotifyd.conf 2>/dev/null"],
                   check=False).stdout
    assert left == ""
    assert box.run(["getent", "group", "yulotifyd"],
                   check=False).returncode == 2
    assert box.run(["test", "-e", SOCKET_PATH], check=False).returncode != 0
    assert box.run(["test", "-e", RUN_STATUS_PATH],
                   check=False).returncode != 0
    # What the administrator wrote stays, with its directories; the empty
    # ones go.
    assert box.run(["test", "-f", CONF_ROOT + "/system.d/a.json"],
                   check=False).returncode == 0
    for gone in ("app.d", "user.d"):
        assert box.run(["test", "-e", CONF_ROOT + "/" + gone],
                       check=False).returncode != 0
