#!/usr/bin/env python3
"""Who may include whom: one rule per folder. Includes go one way and never in a circle."""
import graphlib
import os
import re
import sys
from pathlib import Path

os.chdir(Path(__file__).parents[2])
PROGRAM = "ShellPkg/Application/qfu"
SECOND_PROGRAM = "ShellPkg/Application/flash"
# What the standard library has without an operating system.
FREESTANDING = r"<(array|bit|concepts|cstddef|cstdint|initializer_list|new|span|string_view|type_traits|utility)>"
UEFI = r"<(efi[a-z]*\.h|Uefi\.h|Protocol/\w+\.h)>"
STANDARD = r"<[a-z_]+>"
ANY_LIBRARY = r"<[\w/+]+(\.h|\.hpp)?>"

# Folder: what its files may include besides their neighbours, as patterns. Folders below have rules of their own.
RULES = {
    PROGRAM: [r'"platform/\w+\.h"', FREESTANDING],
    f"{PROGRAM}/platform": [UEFI, FREESTANDING],
    # The library alone, and nothing of the program around it.
    SECOND_PROGRAM: [r'"qfu/(?!(main|cmdline|help|flash_cmd|phy_test|status_text|listing)\.h)(platform/)?\w+\.h"',
                     FREESTANDING],
    "emulator/hardware": [STANDARD],
    "emulator/uefi": [r'"hardware/\w+\.h"', UEFI, STANDARD, r"<(sys/stat|fcntl|unistd)\.h>"],
    "emulator/machine": [r'"(hardware|support)/\w+\.h"', r'"uefi/call_faults\.h"', r'"qfu/discover\.h"', ANY_LIBRARY],
    "emulator/observe": [r'"(hardware|support)/\w+\.h"', ANY_LIBRARY],
    "emulator/guest": [r'"(hardware|support)/\w+\.h"', r'"uefi/efi\.h"', ANY_LIBRARY],
    "emulator": [r'"(guest|hardware|machine|observe|support|uefi)/\w+\.h"', r'"(qfu|flash)/main\.h"', ANY_LIBRARY],
    "spilist": [r'"support/\w+\.h"', r'"qfu/spi_list\.h"', ANY_LIBRARY],
    "jobs": [r'"flash/job_file\.h"', r'"support/\w+\.h"', ANY_LIBRARY],
    "ShellPkg/Application/starter": [r'"qfu/sha256\.h"', r"<efi\.h>", r"<cstring>", FREESTANDING],
    "support": [ANY_LIBRARY],
}
# The only files that include UEFI headers.
DOORS = {f"{PROGRAM}/platform/efi.h", "emulator/uefi/efi.h", "ShellPkg/Application/starter/efi.h"}

complaints = []
units = {}
for folder, allowed in RULES.items():
    for file in [*Path(folder).glob("*.h"), *Path(folder).glob("*.cpp")]:
        for include in re.findall(r'^#\s*include ([<"].*[>"])', file.read_text(), re.MULTILINE):
            neighbour = file.parent / include.strip('"')
            if not neighbour.exists() and not any(re.fullmatch(pattern, include) for pattern in allowed):
                complaints.append(f"{file}: may not include {include}")
            if re.fullmatch(UEFI, include) and str(file) not in DOORS:
                complaints.append(f"{file}: UEFI headers come in through {', '.join(sorted(DOORS))}")
            # A unit is a source and its header. A header without a source is a record that anybody may hold.
            if neighbour.with_suffix(".cpp").exists() and file.with_suffix(".cpp").exists():
                units.setdefault(file.with_suffix(""), set()).add(neighbour.with_suffix(""))
for unit, others in units.items():
    others.discard(unit)
try:
    graphlib.TopologicalSorter(units).prepare()
except graphlib.CycleError as error:
    complaints.append("a circle: " + " -> ".join(str(unit) for unit in error.args[1]))
print("\n".join(complaints) or "includes: each folder includes what it may, and nothing goes in a circle")
sys.exit(1 if complaints else 0)
