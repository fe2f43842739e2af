#!/usr/bin/env python3
"""check_exports.py LIBRARY HEADER: the library's dynamic symbols are the functions of the header, fourteen, no more."""
import re
import subprocess
import sys

library, header = sys.argv[1:]
lines = subprocess.run(["nm", "-D", "--defined-only", library], check=True, capture_output=True, text=True).stdout
exported = {line.split()[-1].split("@")[0] for line in lines.splitlines()}
exported -= {name for name in exported if name.startswith(("__asan", "__odr_asan", "__ubsan"))}
declared = set(re.findall(r"^TOLVAN_EXPORT void (ctlv_\w+)\(", open(header).read(), re.M))
for name in sorted(exported - declared):
    print("exported, but not declared:", name)
for name in sorted(declared - exported):
    print("declared, but not exported:", name)
print(len(exported), "symbols")
sys.exit(exported != declared or len(declared) != 14)
