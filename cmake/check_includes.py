#!/usr/bin/python3
"""Fails when an include under src/ runs against the folders' direction.

    check_includes.py SRC_DIR

Each folder may include itself and the folders the table names, nothing else;
and no two folders may include each other through any chain (a loop).
"""
import pathlib
import re
import sys

ALLOWED = {
    "platform": set(),
    "eventlog": {"platform"},
    "filter": {"platform"},
    "config": {"filter", "platform"},
    "checkpoint": {"eventlog", "config", "filter", "platform"},
    "directory": {"eventlog", "config", "filter", "platform"},
    "channel": {"checkpoint", "directory", "config", "filter", "eventlog", "platform"},
    "modinput": {"platform"},
    "monitor": {"channel", "checkpoint", "directory", "config", "filter", "eventlog", "modinput", "platform"},
    "main": {"monitor", "channel", "checkpoint", "directory", "config", "filter", "eventlog", "modinput", "platform"},
}
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"/]+)/[^"]+"', re.M)


def edges(src):
    """(folder, included folder, file, line) for every include of another folder."""
    for path in sorted(src.rglob("*")):
        if path.suffix not in (".h", ".hpp", ".cpp", ".cc", ".c") or not path.is_file():
            continue
        folder = path.relative_to(src).parts[0]
        text = path.read_text(encoding="utf-8", errors="replace")
        for m in INCLUDE.finditer(text):
            target = m.group(1)
            if target != folder:
                yield folder, target, path.relative_to(src), text.count("\n", 0, m.start()) + 1


def find_loop(graph):
    state = {}

    def visit(node, trail):
        state[node] = "open"
        for nxt in sorted(graph.get(node, ())):
            if state.get(nxt) == "open":
                return trail[trail.index(nxt):] + [nxt] if nxt in trail else trail + [nxt]
            if nxt not in state:
                loop = visit(nxt, trail + [nxt])
                if loop:
                    return loop
        state[node] = "done"
        return None

    for node in sorted(graph):
        if node not in state:
            loop = visit(node, [node])
            if loop:
                return loop
    return None


def main():
    src = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else "src")
    problems = []
    graph = {}
    for folder, target, path, line in edges(src):
        graph.setdefault(folder, set()).add(target)
        if folder not in ALLOWED:
            problems.append(f"{path}:{line}: folder '{folder}' is not in the direction table")
        elif target not in ALLOWED[folder]:
            problems.append(f"{path}:{line}: '{folder}' may not include '{target}'")
    loop = find_loop(graph)
    if loop:
        problems.append("folders include each other: " + " -> ".join(loop))
    for p in problems:
        print(p)
    if problems:
        return 1
    print(f"include direction kept ({sum(len(v) for v in graph.values())} folder dependencies)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
