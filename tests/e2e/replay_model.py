"""A reference queue consumer: replays queue lines onto a model of a tree
and compares the model with the tree on disk.

This is what a sync engine, an indexer or a backup catalogue does with a
queue file, reduced to its core. The model is a map from path to "is a
directory" for everything strictly below one watched root (a share). It
holds exactly what the lines say, nothing guessed:

    1..32  access, modify, attrib, close, open   change nothing
    64     create   adds the path
    128    delete   removes the path (a directory with everything below it)
    256    move     renames path_old to path (a directory with everything
                    below it); a path already at the destination is replaced
                    (unless path_old is unknown: then a rescan has listed the
                    destination after the move already)
    512    rescan   re-reads the real tree below the path: the model's
                    subtree is replaced by what is on disk (a path at or
                    above the root re-reads the whole root)
    1024   reset    earlier lines were lost; the rescan lines after it say
                    what to read again

A line the model cannot apply as written (a create of a path that is there
already or whose parent is missing, a delete or move of a path the model
does not have) is applied as far as it goes and recorded in
`inconsistencies`: with lines in the right order there are none.

The tree on disk is read through `to_host`, which turns a path as the lines
name it into one this process can open (for the end-to-end tests: the
daemon's namespace through /proc/PID/root).
"""

import os
from dataclasses import dataclass, field
from typing import Callable, Dict, Iterable, List, Optional

CREATE = 64
DELETE = 128
MOVE = 256
RESCAN = 512
RESET = 1024
# Bits that report a change of content or metadata, never of the tree.
NO_TREE_CHANGE = 1 | 2 | 4 | 8 | 16 | 32


def read_tree(host_root: str, name_root: str) -> Dict[str, bool]:
    """Everything strictly below `host_root` on disk, as {path: is_dir}
    with paths under `name_root` instead of `host_root`. Symbolic links
    are entries, never followed. A missing `host_root` gives {}."""
    tree: Dict[str, bool] = {}
    pending = [(host_root, name_root)]
    while pending:
        host, name = pending.pop()
        try:
            entries = list(os.scandir(host))
        except (FileNotFoundError, NotADirectoryError):
            continue
        for entry in entries:
            is_dir = entry.is_dir(follow_symlinks=False)
            child = name + "/" + entry.name
            tree[child] = is_dir
            if is_dir:
                pending.append((entry.path, child))
    return tree


@dataclass
class Difference:
    """How a model differs from the tree on disk (all sorted paths)."""
    missing: List[str] = field(default_factory=list)  # on disk, not in model
    extra: List[str] = field(default_factory=list)    # in model, not on disk
    kind: List[str] = field(default_factory=list)     # file in one, dir in other

    def __bool__(self):
        return bool(self.missing or self.extra or self.kind)

    def summary(self, examples: int = 5) -> str:
        def part(label, paths):
            text = "%s=%d" % (label, len(paths))
            if paths:
                text += " %r" % paths[:examples]
            return text
        return ", ".join(part(label, paths) for label, paths in
                         (("missing", self.missing), ("extra", self.extra),
                          ("kind", self.kind)))


class Replay:
    """A model of the tree below `root`, built from queue lines.

    root: the watched directory as the lines name it (no trailing "/").
    to_host: maps such a path to one this process can read; identity by
    default. initial: the starting model, {path: is_dir} below root; by
    default the tree on disk now (a consumer lists what it watches first).
    Not thread-safe.
    """

    def __init__(self, root: str, to_host: Callable[[str], str] = lambda p: p,
                 initial: Optional[Dict[str, bool]] = None):
        self.root = root.rstrip("/") or "/"
        self.to_host = to_host
        self.model: Dict[str, bool] = (dict(initial) if initial is not None
                                       else self.disk())
        self.inconsistencies: List[str] = []
        self.lines = 0
        self.rescans: List[str] = []
        self.resets = 0

    # ------------------------------------------------------------------
    def disk(self, below: Optional[str] = None) -> Dict[str, bool]:
        """The tree on disk strictly below `below` (default: the root)."""
        below = below or self.root
        return read_tree(self.to_host(below), below)

    def _inside(self, path: str) -> bool:
        return path.startswith(self.root + "/")

    def _subtree(self, path: str) -> List[str]:
        """`path` and every model path below it."""
        prefix = path + "/"
        return [p for p in self.model if p == path or p.startswith(prefix)]

    def _note(self, text: str, line: dict):
        self.inconsistencies.append("%s: %r" % (text, line))

    # ------------------------------------------------------------------
    def apply_all(self, lines: Iterable[dict]):
        for line in lines:
            self.apply(line)

    def apply(self, line: dict):
        """Applies one parsed queue line."""
        self.lines += 1
        code = line.get("event")
        path = line.get("path")
        if not isinstance(code, int) or not isinstance(path, str):
            self._note("not a queue line", line)
            return
        if code & ~NO_TREE_CHANGE == 0:
            return
        if code == RESET:
            self.resets += 1
        elif code == RESCAN:
            self.rescans.append(path)
            self._rescan(path)
        elif code == CREATE:
            self._create(path, bool(line.get("is_dir")), line)
        elif code == DELETE:
            self._delete(path, line)
        elif code == MOVE:
            self._move(line.get("path_old"), path, bool(line.get("is_dir")),
                       line)
        else:
            self._note("unknown event code", line)

    def _rescan(self, path: str):
        path = path.rstrip("/") or "/"
        if path == self.root or self.root.startswith(
                path if path == "/" else path + "/"):
            self.model = self.disk()
            return
        if not self._inside(path):
            return  # about another part of the volume
        for p in self._subtree(path):
            del self.model[p]
        host = self.to_host(path)
        if os.path.lexists(host):
            is_dir = os.path.isdir(host) and not os.path.islink(host)
            self.model[path] = is_dir
            if is_dir:
                self.model.update(self.disk(path))

    def _create(self, path: str, is_dir: bool, line: dict):
        if not self._inside(path):
            self._note("create outside the root", line)
            return
        if path in self.model:
            self._note("create of a path already there", line)
        parent = path.rsplit("/", 1)[0]
        if parent != self.root and self.model.get(parent) is not True:
            self._note("create below a missing directory", line)
        self.model[path] = is_dir

    def _delete(self, path: str, line: dict):
        if not self._inside(path):
            self._note("delete outside the root", line)
            return
        if path not in self.model:
            self._note("delete of a path not there", line)
        for p in self._subtree(path):
            del self.model[p]

    def _move(self, old: Optional[str], new: str, is_dir: bool, line: dict):
        if not isinstance(old, str):
            self._note("move without path_old", line)
            return
        moved: Dict[str, bool] = {}
        if self._inside(old) and old not in self.model:
            self._note("move of a path not there", line)
            if new in self.model:
                # A rescan read the tree after this move already; what it
                # found at the destination stays.
                return
            moved[new] = is_dir
        elif self._inside(old):
            for p in self._subtree(old):
                moved[new + p[len(old):]] = self.model.pop(p)
        else:
            moved[new] = is_dir
        if not self._inside(new):
            return  # moved out of what the model holds
        parent = new.rsplit("/", 1)[0]
        if parent != self.root and self.model.get(parent) is not True:
            self._note("move below a missing directory", line)
        for p in self._subtree(new):  # rename(2) replaces the target
            del self.model[p]
        self.model.update(moved)

    # ------------------------------------------------------------------
    def difference(self) -> Difference:
        """How the model differs from the tree on disk now."""
        real = self.disk()
        diff = Difference()
        diff.missing = sorted(p for p in real if p not in self.model)
        diff.extra = sorted(p for p in self.model if p not in real)
        diff.kind = sorted(p for p in real
                           if p in self.model and self.model[p] != real[p])
        return diff
