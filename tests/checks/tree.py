#!/usr/bin/env python3
"""Checks of what the tree holds.

usage: tests/checks/tree.py CHECK [PAGE...]     the pages are for docs; without them it takes all
"""
import difflib
import os
import re
import shutil
import subprocess
import sys
import tempfile
import textwrap
from functools import reduce
from pathlib import Path

os.chdir(Path(__file__).parents[2])
PROGRAM = Path("ShellPkg/Application/qfu")
complaints = []


def files(pattern="*"):
    """The tree's files, those too that were not added yet."""
    names = output_of("git", "ls-files", "-z", "--cached", "--others", "--exclude-standard", pattern).split("\0")
    return [Path(name) for name in names if os.path.isfile(name)]


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def modes():
    """Scripts are executable, and nothing else is."""
    for file in files():
        if (file.read_bytes()[:2] == b"#!") != os.access(file, os.X_OK):
            complaints.append(f"{file}: a script that is not executable, or an executable that is no script")


def words():
    """No words about where the rules come from, no places of one machine, no hosts that packages come from."""
    unwanted = re.compile(r"\b[Ss]pec(s|ification|ifications)?\b|\bPart [0-9]|(^|[^A-Za-z0-9_.])/(work|root|home)/"
                          r"|https?://[a-z0-9.-]*(debian|npmjs|pypi|crates)")
    for file in files():
        if str(file) not in ("DEVELOPERS.md", "LICENSE") and b"\0" not in file.read_bytes():
            for number, line in enumerate(file.read_text(errors="replace").split("\n"), 1):
                if unwanted.search(line):
                    complaints.append(f"{file}:{number}: {line}")


def shell():
    """shellcheck has no complaint about shell scripts."""
    scripts = [file for file in files() if file.read_bytes().startswith(b"#!/bin/bash")]
    result = subprocess.run(["shellcheck", "--shell=bash", *scripts, "package/completion.bash"], check=False,
                            capture_output=True, text=True)
    complaints.extend(result.stdout.splitlines() + result.stderr.splitlines())


def links():
    """Links between pages lead to a file, and to a heading in it."""
    def anchors(page):
        headings = re.findall(r"^#+ *(.*)", page.read_text(), re.MULTILINE)
        return [re.sub(r"[^a-z0-9 _-]", "", heading.lower()).replace(" ", "-") for heading in headings]

    for page in files("*.md"):
        for target in re.findall(r"\]\(([^)]+)\)", page.read_text()):
            name, _, heading = target.partition("#")
            path = page.parent / name if name else page
            if not target.startswith(("http:", "https:")) and (
                    not path.exists() or heading and heading not in anchors(path)):
                complaints.append(f"{page}: {target}: no such file or heading")


def chips():
    """The page of supported chips is the one that the chip list makes."""
    with tempfile.TemporaryDirectory() as place:
        made = Path(place, "chips.md")
        output_of("cmake", "-DSPILIST=build/host/spilist", "-DSOURCE=spilist/chips.toml", f"-DPAGE={made}",
                  f"-DTEMPLATE={Path('spilist/chips.md.in').resolve()}", "-P", "spilist/write_page.cmake")
        if made.read_bytes() != Path("docs/chips.md").read_bytes():
            complaints.append("docs/chips.md is stale: cmake --build --preset host --target chips_page")


def messages(shortest, *without):
    """The program's messages. The longest piece without a conversion or a line end stands for its message."""
    result = set()
    sources = [source.read_text() for source in PROGRAM.glob("*.cpp") if source.stem not in without]
    text = re.sub(r'" *"', "", "".join(sources).replace("\n", ""))
    for literal in re.findall(r'"((?:[^"\\]|\\.)*)"', text):
        if re.search(r"\\n|%|\.\.\.", literal):
            pieces = re.split(r"\\[nrt]|%[-0-9.*]*[lh]?[a-zA-Z]", literal.replace('\\"', '"'))
            result.add(max(pieces, key=len).replace("\\\\", "\\"))
    return sorted(piece for piece in result if len(piece) >= shortest and piece.strip())


def tables():
    """Pages have every message and adapter, and a session has every message that one can have."""
    # Help and PHY test have pages of their own; lines of the parameter script and of hex dumps are no messages.
    page = Path("docs/troubleshooting.md").read_text()
    complaints.extend(f'docs/troubleshooting.md does not have "{piece}"'
                      for piece in messages(7, "help", "phy_test", "status_text")
                      if piece not in page and not piece.startswith(("  ", "echo", "set ")))
    # The status texts are compared with a file by a unit test.
    unreachable = re.findall(r"^(.*?) => ", Path("tests/sessions/unreachable").read_text(), re.MULTILINE)
    sessions = "".join(path.read_text() for path in Path("tests/sessions").glob("*.txt"))
    reachable = messages(3, "status_text")
    for piece in reachable:
        if (piece in unreachable) == (piece in sessions):
            complaints.append(f'"{piece}" must be in a session, or in tests/sessions/unreachable, not both')
    complaints.extend(f'tests/sessions/unreachable: the program has no "{piece}"'
                      for piece in unreachable if piece not in reachable)

    page = Path("docs/adapters.md").read_text()
    kinds = {"INDEXED": 1, "BAR2": 2, "BAR0": 4}
    for vendor, device, kind, generation, ports in re.findall(
            r"^ *\{0x(....), 0x(....), QFU_FLASH_IF_([A-Z0-9]+), *([0-9]+), *([0-9]+),",
            (PROGRAM / "discover.cpp").read_text(), re.MULTILINE):
        row = f"\n| {vendor} | {device} | {kinds.get(kind, kind)} | {generation} | {ports} |"
        if row not in page:
            complaints.append(f"docs/adapters.md does not have {row[1:]}")


def docs():
    """Code blocks of the pages do what the page shows.

    Each stands after a marker, a comment that readers do not see:
      <!-- run -->              commands of a Linux shell. Each after "$ ", with its output below it, or a whole
                                block of commands without any output
      <!-- run: fails -->       the same; every command ends with a status other than 0
      <!-- shell: MACHINE -->   a session at the UEFI shell's prompt, on the emulator with this machine file; the
                                volume holds the chip list and an image.bin of 3000 bytes
      <!-- file: NAME -->       the contents of a file that a later block needs
      <!-- add to: NAME -->     lines that are added to the end of a file
      <!-- text -->             no commands: an output, a part of a file
      <!-- not run: REASON -->  commands that cannot be run here
    <!-- before: COMMAND --> runs what a reader has done already. In an output "..." stands for any text. The tree is
    copied for each page, and a "cd" holds to the end of the page."""
    for page in [Path(name) for name in sys.argv[2:]] or files("*.md"):
        with tempfile.TemporaryDirectory() as parent:
            Page(page, Path(parent)).check()


def blocks(page):
    """Line, marker and text of each code block, and of each "before"."""
    marker, text = "", page.read_text() + "\n"
    pattern = r"^ *<!-- (.*) -->$|^ *(```|~~~)|(?<=\n\n)( {4}.*\n(?:(?: {4}.*)?\n)*)"
    for found in re.finditer(pattern, text, re.MULTILINE):
        comment, fence, code = found.groups()
        line = text.count("\n", 0, found.start()) + 1
        if fence:
            yield line, "fence: indent the block by four instead", ""
        elif code:
            yield line, marker, textwrap.dedent(code).rstrip("\n")
            marker = ""
        elif comment.startswith("before: "):
            yield line, comment, ""
        else:
            marker = comment


def as_shown(output):
    """What a terminal shows of an output: a carriage return lets the line be written over."""
    lines = [reduce(lambda shown, piece: piece + shown[len(piece):], line.split("\r"))
             for line in output.decode(errors="replace").split("\n")]
    return "\n".join(line.rstrip(" ") for line in lines).rstrip("\n")


class Page:
    """A page, a copy of the tree, and a volume for the UEFI shell."""

    def __init__(self, page, parent):
        self.page, self.line = page, 0
        self.place, self.uefi, self.end = parent / "tree", parent / "uefi", parent / "directory"
        self.last_error = ""
        for folder in self.place / "build", self.uefi / "volume":
            folder.mkdir(parents=True)
        self.end.write_text(str(self.place))
        if re.search(r"^ *<!-- (run|before|shell)", page.read_text(), re.MULTILINE):  # most pages run nothing
            output_of("cp", "--parents", "-t", self.place, *files())
            output_of("git", "init", "-q", self.place)
        for name in "efi", "fast", "host", "qfu.man", "spilist.bin":
            (self.place / "build" / name).symlink_to(Path("build", name).resolve())
        shutil.copy("build/spilist.bin", self.uefi / "volume")
        (self.uefi / "volume/image.bin").write_bytes(os.urandom(3000))

    def complain(self, text):
        complaints.append(f"{self.page}:{self.line}: {text}")

    def check(self):
        before = set(os.listdir(self.place))
        for self.line, marker, text in blocks(self.page):
            self.block(marker, text)
        if left := set(os.listdir(self.place)) - before:
            self.complain(f"the page leaves beside the sources: {left}")

    def block(self, marker, text):
        kind, _, value = marker.partition(": ")
        if kind == "before":
            self.check_status(value, self.in_linux(value)[1], "run")
        elif marker in ("run", "run: fails"):
            if text.startswith("$ "):
                self.session(self.in_linux, "$ ", marker, text)
            else:
                output, status = self.in_linux(text)
                self.check_status(f"{text}\n{output}", status, marker)
        elif kind == "shell" and value:
            self.session(lambda command: self.in_uefi(self.place / value, command), "FS0:\\> ", marker, text)
        elif kind in ("file", "add to") and value:
            file = self.place / value
            file.parent.mkdir(parents=True, exist_ok=True)
            with file.open("a" if kind == "add to" else "w") as stream:
                stream.write(f"\n{text}\n" if kind == "add to" else f"{text}\n")
        elif kind == "not run" and value:
            self.check_names(text.split())
        elif marker != "text":
            self.complain(f'a code block needs a marker, not "{marker}"; tests/checks/tree.py lists them')

    def session(self, run, prompt, marker, text):
        """Runs each command, and compares its output with the lines up to the next prompt."""
        start, *steps = re.split("^" + re.escape(prompt), text.replace("\\\n", ""), flags=re.MULTILINE)
        if start or not steps:
            self.complain(f'a session begins with "{prompt}"')
        for step in steps:
            command, _, expected = step.partition("\n")
            output, status = run(command)
            pattern = ".*".join(re.escape(piece) for piece in as_shown(expected.encode()).split("..."))
            if not re.fullmatch(pattern, output, re.DOTALL):
                difference = difflib.ndiff(expected.split("\n"), output.split("\n"))
                self.complain(f'"{command}" does not print what the page shows:\n' + "\n".join(difference))
            self.check_status(command, status, marker)

    def check_status(self, command, status, marker):
        if marker == "run" and status != 0 or marker == "run: fails" and status == 0:
            self.complain(f'"{command}" ends with status {status}')

    def in_linux(self, command):
        keep_directory = f"trap 'pwd >{self.end}' EXIT\n"
        result = subprocess.run(["timeout", "60", "bash", "-euo", "pipefail", "-c", keep_directory + command],
                                cwd=self.end.read_text().rstrip("\n"), stdin=subprocess.DEVNULL, check=False,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return as_shown(result.stdout), result.returncode

    def in_uefi(self, machine, command):
        """Does at the emulator what a command does at the UEFI shell's prompt."""
        name, *arguments = command.split()
        if name == "echo":
            return " ".join(arguments).replace("%lasterror%", self.last_error), 0
        if name == "type":
            return as_shown((self.uefi / "volume" / arguments[0]).read_bytes()), 0
        if name != "qfu":
            return f'tests/checks/tree.py has no command "{name}"', 0
        result = subprocess.run(["timeout", "60", Path("build/host/qfu-emu").resolve(), "--machine", machine,
                                 "--dir", "volume", "--keys", "", "--", *arguments], cwd=self.uefi, check=False,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.last_error = f"0x{result.returncode}"
        return as_shown(result.stdout), result.returncode

    def check_names(self, names):
        """What is not run names at least scripts, presets and targets that exist."""
        presets = re.findall(r'"name": "(.*?)"', Path("CMakePresets.json").read_text())
        targets = re.findall(r"^(.*?): ", output_of("ninja", "-C", "build/host", "-t", "targets", "all"), re.MULTILINE)
        for option, name in zip(["", *names], names):
            if option == "--preset" and name not in presets:
                self.complain(f"no preset {name}")
            elif option == "--target" and name not in targets:
                self.complain(f"no target {name}")
            elif name.startswith(("scripts/", "tests/")) and not os.access(name, os.X_OK):
                self.complain(f"no script {name}")


checks = {check.__name__: check for check in (chips, docs, links, modes, shell, tables, words)}
if len(sys.argv) < 2 or sys.argv[1] not in checks:
    sys.exit(f"{__doc__}CHECK is one of: {' '.join(checks)}")
check = checks[sys.argv[1]]
check()
print("\n".join(complaints) or f"{check.__name__}: {check.__doc__.splitlines()[0]}")
sys.exit(bool(complaints))
