#!/usr/bin/python3
# Prints what a screen reader reads of the application that process PID (or
# a process below it) registered on the AT-SPI bus: one line a node,
#   ROLE <tab> NAME <tab> STATES <tab> TEXT
# once the tree has a showing window and reads the same twice in a row.
#   tests/system/atspi-tree.py PID [SECONDS]
import sys
import time

import gi

gi.require_version("Atspi", "2.0")
from gi.repository import GLib  # noqa: E402
import pyatspi  # noqa: E402


def die(message):
    print(f"atspi-tree: {message}", file=sys.stderr)
    sys.exit(1)


def stat(pid):
    # The fields after the command name: state, parent, ...
    try:
        with open(f"/proc/{pid}/stat") as file:
            return file.read().rsplit(")", 1)[1].split()
    except (OSError, IndexError):
        return None


def descends(pid, root):
    # Walks up the parents: the runtime and AppRun may stand between.
    while pid > 1:
        if pid == root:
            return True
        fields = stat(pid)
        if fields is None:
            return False
        pid = int(fields[1])
    return False


def one_line(value):
    return " ".join(str(value).split("\t")).replace("\n", "\\n")


def node_line(node):
    try:
        text = node.queryText()
        content = text.getText(0, -1)
    except NotImplementedError:
        content = ""
    states = ",".join(sorted(pyatspi.stateToString(s) for s in node.getState().getStates()))
    return "\t".join(one_line(v) for v in (node.getRoleName(), node.name, states, content))


def dump(node, lines, depth=0):
    # Qt's trees are shallow; the bound only guards against a cycle.
    if depth > 64:
        die("the tree is deeper than 64 levels")
    lines.append(node_line(node))
    for index in range(node.childCount):
        child = node.getChildAtIndex(index)
        if child is not None:
            dump(child, lines, depth + 1)


def applications(root):
    # Qt may register more than once; a read covers every registration.
    desktop = pyatspi.Registry.getDesktop(0)
    apps = []
    for index in range(desktop.childCount):
        app = desktop.getChildAtIndex(index)
        if app is not None and descends(app.get_process_id(), root):
            # Each read asks the wizard, not what an earlier read kept.
            app.clear_cache()
            apps.append(app)
    return apps


def main():
    if len(sys.argv) not in (2, 3):
        print("usage: atspi-tree.py PID [SECONDS]", file=sys.stderr)
        sys.exit(2)
    root, seconds = int(sys.argv[1]), float(sys.argv[2]) if len(sys.argv) == 3 else 30
    deadline = time.monotonic() + seconds
    previous, apps = None, []
    while time.monotonic() < deadline:
        fields = stat(root)
        if fields is None or fields[0] == "Z":
            die(f"process {root} ended")
        try:
            apps = applications(root)
            lines = []
            for app in apps:
                dump(app, lines)
        except GLib.Error:
            lines = None  # a node went away while read: read again
        showing = lines and any(
            l.split("\t")[0] in ("frame", "window", "dialog") and "showing" in l.split("\t")[2].split(",")
            for l in lines)
        if showing and lines == previous:
            print("\n".join(lines))
            return
        previous = lines
        time.sleep(0.1)
    die(f"no showing window of process {root} on the AT-SPI bus after {seconds:g} s"
        + (f" ({len(previous)} nodes read)" if previous else
           "" if apps else " (it did not register)"))


main()
