"""The reference consumer of replay_model.py on its own: hand-written line
lists against a small real tree in a temporary directory (no daemon)."""

import os

import pytest

from replay_model import Replay, read_tree


def line(event, path, is_dir=False, path_old=None):
    d = {"event": event, "is_dir": is_dir, "path": path}
    if path_old is not None:
        d["path_old"] = path_old
    return d


@pytest.fixture
def root(tmp_path):
    r = tmp_path / "share"
    r.mkdir()
    return str(r)


def touch(path):
    with open(path, "w"):
        pass


def test_read_tree_lists_entries_and_does_not_follow_links(root, tmp_path):
    os.mkdir(root + "/d")
    touch(root + "/d/f")
    os.symlink(str(tmp_path), root + "/link")
    assert read_tree(root, "/v/S") == {
        "/v/S/d": True, "/v/S/d/f": False, "/v/S/link": False}
    assert read_tree(root + "/absent", "/v/S/absent") == {}


def test_creates_deletes_and_moves_in_order_give_the_tree(root):
    r = Replay(root)
    os.mkdir(root + "/d")
    touch(root + "/d/a")
    touch(root + "/d/b")
    os.rename(root + "/d/a", root + "/d/c")
    os.unlink(root + "/d/b")
    r.apply_all([
        line(64, root + "/d", True),
        line(64, root + "/d/a"),
        line(10, root + "/d/a"),      # modify + close: no change of tree
        line(64, root + "/d/b"),
        line(256, root + "/d/c", path_old=root + "/d/a"),
        line(128, root + "/d/b"),
    ])
    assert not r.difference()
    assert r.inconsistencies == []
    assert r.model == {root + "/d": True, root + "/d/c": False}


def test_directory_move_and_delete_carry_everything_below(root):
    os.makedirs(root + "/a/b")
    touch(root + "/a/b/f")
    r = Replay(root)
    os.rename(root + "/a", root + "/z")
    r.apply(line(256, root + "/z", True, path_old=root + "/a"))
    assert r.model == {root + "/z": True, root + "/z/b": True,
                       root + "/z/b/f": False}
    assert not r.difference()
    os.unlink(root + "/z/b/f")
    os.rmdir(root + "/z/b")
    os.rmdir(root + "/z")
    r.apply(line(128, root + "/z", True))
    assert r.model == {} and not r.difference()


def test_unlink_and_create_again_in_the_wrong_order_loses_the_file(root):
    # What an archiver does over an existing tree: unlink, create again.
    touch(root + "/f")
    right, wrong = Replay(root), Replay(root)
    right.apply_all([line(128, root + "/f"), line(64, root + "/f")])
    wrong.apply_all([line(64, root + "/f"), line(128, root + "/f")])
    assert not right.difference() and right.inconsistencies == []
    diff = wrong.difference()
    assert diff.missing == [root + "/f"] and diff.extra == []
    assert len(wrong.inconsistencies) == 1  # the create of a present path


def test_rename_over_a_target_replaces_it(root):
    touch(root + "/target")
    r = Replay(root)
    touch(root + "/.tmp")
    os.rename(root + "/.tmp", root + "/target")
    r.apply_all([line(64, root + "/.tmp"),
                 line(256, root + "/target", path_old=root + "/.tmp")])
    assert r.model == {root + "/target": False}
    assert not r.difference() and r.inconsistencies == []


def test_rescan_replaces_the_subtree_with_the_disk(root):
    os.makedirs(root + "/d/e")
    touch(root + "/d/e/f")
    touch(root + "/other")
    r = Replay(root, initial={root + "/d": True, root + "/d/gone": False,
                              root + "/other": False})
    assert r.difference().missing == [root + "/d/e", root + "/d/e/f"]
    r.apply(line(512, root + "/d", True))
    assert not r.difference()
    assert r.rescans == [root + "/d"]


def test_lines_a_rescan_has_already_seen_change_nothing(root):
    # The disk is read when the rescan line is replayed, after every change:
    # the lines behind it repeat what the listing shows.
    os.mkdir(root + "/old")
    touch(root + "/old/f")
    r = Replay(root)
    os.rename(root + "/old", root + "/new")
    r.apply_all([line(512, root, True),
                 line(256, root + "/new", True, path_old=root + "/old")])
    assert not r.difference()
    assert r.model == {root + "/new": True, root + "/new/f": False}


def test_rescan_of_a_path_gone_removes_it(root):
    r = Replay(root, initial={root + "/d": True, root + "/d/f": False})
    r.apply(line(512, root + "/d", True))
    assert r.model == {} and not r.difference()


def test_rescan_above_the_root_reads_everything(root):
    touch(root + "/f")
    r = Replay(root, initial={root + "/x": True})
    r.apply(line(512, os.path.dirname(root), True))
    assert not r.difference()
    r = Replay(root, initial={})
    r.apply(line(512, "/", True))
    assert not r.difference()


def test_rescan_elsewhere_changes_nothing(root):
    r = Replay(root, initial={root + "/x": False})
    r.apply(line(512, root + "-other/d", True))
    assert r.model == {root + "/x": False}


def test_reset_then_its_rescans(root):
    touch(root + "/f")
    r = Replay(root, initial={root + "/old": False})
    r.apply_all([line(1024, ""), line(512, root, True)])
    assert r.resets == 1 and not r.difference()


def test_create_below_a_missing_directory_is_recorded(root):
    os.mkdir(root + "/d")
    touch(root + "/d/f")
    r = Replay(root, initial={})
    r.apply(line(64, root + "/d/f"))
    assert r.inconsistencies and "missing directory" in r.inconsistencies[0]
    assert r.difference().missing == [root + "/d"]


def test_delete_of_an_unknown_path_is_recorded(root):
    r = Replay(root, initial={})
    r.apply(line(128, root + "/nothing"))
    assert len(r.inconsistencies) == 1
    assert not r.difference()


def test_wrong_kind_is_a_difference(root):
    os.mkdir(root + "/d")
    r = Replay(root, initial={})
    r.apply(line(64, root + "/d", False))
    diff = r.difference()
    assert diff.kind == [root + "/d"] and bool(diff)


def test_moves_across_the_root_are_creates_and_deletes(root):
    os.mkdir(root + "/in")
    touch(root + "/in/f")
    r = Replay(root, initial={root + "/out": True})
    r.apply_all([
        line(256, root + "/in", True, path_old=root + "-elsewhere/in"),
        line(256, root + "-elsewhere/out", True, path_old=root + "/out"),
    ])
    # The moved-in directory's contents are unknown until it is listed.
    assert r.difference().missing == [root + "/in/f"]
    r.apply(line(512, root + "/in", True))
    assert not r.difference()


def test_to_host_maps_line_paths_to_readable_ones(root):
    touch(root + "/f")
    r = Replay("/vol1/S", to_host=lambda p: root + p[len("/vol1/S"):])
    assert r.model == {"/vol1/S/f": False}
    os.mkdir(root + "/d")
    r.apply(line(64, "/vol1/S/d", True))
    assert not r.difference()
