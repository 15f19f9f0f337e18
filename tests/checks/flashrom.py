#!/usr/bin/env python3
"""Lets flashrom identify, read, write and erase the SPI chip models through qfu-serprog.

Each part is tried on random contents, and the model must hold afterwards what it should. A part that behaves in
another way than its row in docs/foreign-clients.md is a failure.
usage: tests/checks/flashrom.py           one part of each kind: by its erase opcodes, protection and program cycles
       tests/checks/flashrom.py PART...   these parts
       tests/checks/flashrom.py --all     every part, and write the table of the page
"""
import os
import re
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

os.chdir(Path(__file__).parents[2])
PAGE = Path("docs/foreign-clients.md")
ONE_OF_EACH_KIND = "W25X10 MX25L512 GD25Q40 M25P05-A SST25VF040B AT25DF041A AT25F2048".split()


class Session:
    """One run of flashrom on a part, which may change the regions to what the bytes "new" have there."""

    def __init__(self, part, size, client, chip=(), regions=(), new=b""):
        with tempfile.TemporaryDirectory() as place:
            image, layout, dump = (Path(place, name) for name in ("chip.img", "layout", "dump.img"))
            self.before = self.expected = os.urandom(size)
            image.write_bytes(self.before)
            Path(place, "new.img").write_bytes(new)
            layout.write_text("".join(f"{first:08x}:{end - 1:08x} from{first}\n" for first, end in regions))
            for first, end in regions:
                client = [*client, "-i", f"from{first}"]
                self.expected = self.expected[:first] + new[first:end] + self.expected[end:]
            server = ["timeout", "180", "build/host/qfu-serprog", "--part", part, "--image", image, "--once", *chip]
            with subprocess.Popen(server, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as served:
                self.greeting = served.stdout.readline()
                command = ["timeout", "150", "flashrom", "-p", f"serprog:ip={self.greeting.split(' ')[0]}", *client]
                result = subprocess.run(command + ["-l", layout] * bool(regions), cwd=place, check=False, text=True,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
                self.misuse = re.findall("^qfu-serprog: misuse: (.*)", served.stdout.read(), re.MULTILINE)
            self.output, self.contents = result.stdout, image.read_bytes()
            self.passed = (result.returncode, served.returncode, self.contents) == (0, 0, self.expected)
            self.dump = dump.read_bytes() if self.passed and dump.exists() else None


def write(part, name, size):
    """The last 16 KiB and a region with odd ends, on a chip that powers up with protection bits set."""
    chip = [] if part.startswith(("SST25VF", "AT25DF041A")) else ["--status", "0x0C"]  # these are protected anyway
    regions = [(size - 16384, size), (4099, 4099 + 8183)]
    return Session(part, size, ["-c", name, "-N", "-w", "new.img"], chip, regions, os.urandom(size))


def erase(part, name, size, unit, others):
    """One unit or the whole chip. The chip knows no other erase opcode, so that flashrom has no choice."""
    chip = [word for opcode in others for word in ("--refuse", f"0x{opcode}")]
    if unit == "chip":
        chip.append("--never-busy")  # flashrom would look again after a second
    length = size if unit == "chip" else int(unit) * 1024
    first = size // 2 // length * length
    return Session(part, size, ["-c", name, "-E"], chip, [(first, first + length)], b"\xFF" * size)


def row(part, size):
    """Tries a part, and returns its row of the table."""
    read = Session(part, size, ["-r", "dump.img"])
    found = re.findall(rf'^Found .* flash chip "(.*)" \({size // 1024} kB, SPI\)', read.output, re.MULTILINE)
    names = [name for name in found if not name.startswith(("unknown", "SFDP-capable"))]
    if not names:
        return f"| {part} | - | no | - | - | - | flashrom does not know it |"
    name = [names[0], *(name for name in names if part in name)][-1]
    if read.dump is None:  # flashrom wants to be told which of several chips
        read = Session(part, size, ["-c", name, "-r", "dump.img"])
    written = write(part, name, size)
    remarks = [f"flashrom has {len(names)} chips with this ID"] * (len(names) > 1) + written.misuse[:1]

    units = dict(re.findall(r"(\w\w) (\d+|chip)", read.greeting.partition(" erases ")[2]))
    with ThreadPoolExecutor() as pool:
        sessions = pool.map(lambda own: erase(part, name, size, units[own], units.keys() - {own}), units)
    erased = dict(zip(units, sessions))
    passed = [own for own in units if erased[own].passed]
    unused = [own for own in units if own not in passed and erased[own].contents == erased[own].before]
    remarks += [f"wrong contents after erase with {own}" for own in units if own not in passed + unused]
    if unused:
        remarks.append(f"flashrom does not erase with {' '.join(unused)}")
    misuse = "\n".join(line for session in erased.values() for line in session.misuse)
    if foreign := set(re.findall("opcode (..) is none", misuse)) - units.keys():
        remarks.append(f"the model does not know {' '.join(sorted(foreign))}")
    results = ("yes" if good else "no" for good in (read.dump == read.before, written.passed))
    return f"| {part} | {name} | yes | {' | '.join(results)} | {' '.join(passed)} | {'; '.join(remarks)} |"


listed = subprocess.check_output(["build/host/qfu-emu", "list", "parts"], text=True).partition("[adapter.nor")[0]
sizes = {part: int(kib) * 1024 for part, kib in re.findall(r"^(\S+) .*? (\d+) KiB ", listed, re.MULTILINE)}
chosen = list(sizes) if sys.argv[1:] == ["--all"] else sys.argv[1:] or ONE_OF_EACH_KIND
if strangers := set(chosen) - sizes.keys():
    sys.exit(f"no part {' '.join(strangers)}")
# Each session waits for a second and keeps a processor busy with that, so many at once cost less.
with ThreadPoolExecutor(4 * (os.cpu_count() or 1)) as pool:
    rows = list(pool.map(lambda part: row(part, sizes[part]), chosen))
if sys.argv[1:] == ["--all"]:
    head = re.match(r".*?\n\|---.*?\n", PAGE.read_text(), re.DOTALL)[0]
    PAGE.write_text(head + "\n".join(rows) + "\n")
shown = re.findall(r"^\| (\S*\d\S*) (\|.*)", PAGE.read_text(), re.MULTILINE)
stale = [text for text in rows if tuple(text[2:].split(" ", 1)) not in shown]
if stale or [part for part, _ in shown] != list(sizes):
    sys.exit("\n".join([*stale, f"{PAGE} is stale: tests/checks/flashrom.py --all"]))
print(f"flashrom: {len(rows)} parts behave as the page says")
