#!/usr/bin/env python3
"""Fails when an #include in a product folder goes against the layers of
docs/architecture.md: a folder may include its own headers and those of
folders in strictly lower layers. Usage: check_layering.py [REPO_ROOT]"""
import os
import re
import sys

root = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), ".."))
doc = open(os.path.join(root, "docs", "architecture.md"), encoding="utf-8").read()
start = doc.index("<!-- layers")
end = doc.index("<!-- end of layers -->")
layers = {}
for m in re.finditer(r"^\|\s*(\d+)\s*\|\s*`([^`]+)/`\s*\|", doc[start:end], re.M):
    layers[m.group(2)] = int(m.group(1))
if not layers:
    sys.exit("no layer table in docs/architecture.md")

exempt = ("tests", "fuzz", "bench", "build", ".git", "sysroot")
include = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)
errors = []
for dirpath, dirnames, filenames in os.walk(root):
    rel_dir = os.path.relpath(dirpath, root)
    top = rel_dir.split(os.sep)[0]
    if top in exempt or top.startswith("build"):
        dirnames[:] = []
        continue
    for name in filenames:
        if not name.endswith((".h", ".cpp")):
            continue
        folder = rel_dir.replace(os.sep, "/")
        path = f"{folder}/{name}"
        if folder not in layers:
            errors.append(f"{path}: folder {folder}/ is not in the layer table")
            continue
        text = open(os.path.join(dirpath, name), encoding="utf-8").read()
        for target in include.findall(text):
            target_folder = os.path.dirname(target)
            if not target_folder or target_folder == folder:
                continue
            if target_folder not in layers:
                errors.append(f"{path}: includes {target}, whose folder is not in the layer table")
            elif layers[target_folder] >= layers[folder]:
                errors.append(f"{path}: includes {target} (layer {layers[target_folder]}) from layer {layers[folder]}")

for e in errors:
    print(e)
if errors:
    sys.exit(1)
print(f"layering: {len(layers)} folders, every include points down")
