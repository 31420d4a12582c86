#!/usr/bin/env python3
"""Checks that the README and the reference pages in docs/ hold together
with the code: every relative link leads somewhere, every error code of
ambit/exception.h is explained, and the limits the pages state are the
constants the library is built with. Argument: the source directory."""
import os
import re
import sys

src = sys.argv[1]
problems = []


def read(path):
    with open(os.path.join(src, path), encoding="utf-8") as f:
        return f.read()


def constant(path, name):
    m = re.search(r"\b%s\s*=\s*(\d+)" % name, read(path))
    if not m:
        problems.append("%s: no constant %s" % (path, name))
        return None
    return int(m.group(1))


readme = read("README.md")
for needed in ("make demo", "make test", "## Using ambit from your project",
               "find_package(Ambit", "pkg-config --cflags --libs ambit",
               "cmake --install build --prefix", "g++-multilib", "libc6-i386",
               "lib32stdc++6", "](docs/", "](examples/"):
    if needed not in readme:
        problems.append("README.md lacks %r" % needed)

pages = ["README.md"] + ["docs/" + p for p in sorted(os.listdir(os.path.join(src, "docs")))
                         if p.endswith(".md")]
for page in pages:
    for target in re.findall(r"\]\(([^)#]+)(?:#[^)]*)?\)", read(page)):
        if "://" in target:
            continue
        path = os.path.normpath(os.path.join(os.path.dirname(page), target))
        if not os.path.exists(os.path.join(src, path)):
            problems.append("%s links to %s, which does not exist" % (page, target))

errors = read("docs/errors.md")
for name, value in re.findall(r"constexpr (?:unsigned )?long (QK_\w+) =\s*(?:static_cast<long>\()?"
                              r"(0x[0-9A-Fa-f]+)", read("include/ambit/exception.h")):
    if name in ("QK_INFINITE",):
        continue
    shown = "0x%08X" % int(value, 16) if int(value, 16) else "0"
    if not re.search(r"\| %s \| `%s` \|" % (re.escape(shown), name), errors):
        problems.append("docs/errors.md has no row for %s (%s)" % (name, shown))

segments = constant("src/shm/share_mem_layout.h", "kRegistryEntries")
pids = constant("src/shm/share_mem_layout.h", "kPidSlots")
objects = constant("src/names/name_map.h", "kMaxEntries")
object_pids = constant("src/names/name_map.h", "kPidSlots")
segment_name = constant("src/shm/share_mem_layout.h", "kNameSize")
object_name = constant("src/names/name_map.cpp", "kMaxNameLength")
watch_ms = constant("src/names/crash_recovery.cpp", "kWatchPeriodMs")
expect = [
    ("docs/shared-memory.md", "| Segments on the machine | %s registry entries" % segments),
    ("docs/shared-memory.md", "| Processes per segment | %s |" % pids),
    ("docs/shared-memory.md", "| Length | at most %s characters" % (segment_name - 1 if segment_name else 0)),
    ("docs/named-objects.md", "| Named objects on the machine | %s " % objects),
    ("docs/named-objects.md", "| Processes per object | %s |" % object_pids),
    ("docs/named-objects.md", "| Length | at most %s characters" % object_name),
    ("docs/crash-recovery.md", "every %s s in every process" % (watch_ms // 1000 if watch_ms else 0)),
    ("docs/tracing.md", "| `QKLogFilePath` |"),
    ("docs/tracing.md", "| `AmbitTrace` |"),
    ("docs/permissions.md", "| 0666 |"),
    ("docs/permissions.md", "| 0777 |"),
]
for page, text in expect:
    if text not in read(page):
        problems.append("%s does not say %r" % (page, text))

for p in problems:
    print("docs: " + p)
print("docs: %d problem%s" % (len(problems), "" if len(problems) == 1 else "s"))
sys.exit(1 if problems else 0)
