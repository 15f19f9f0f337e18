#!/usr/bin/env python3
"""Checks of what the tree holds.

usage: tests/checks/tree.py CHECK [PAGE...]     the pages are for docs; without them it takes all"""
import os
import re
import subprocess
import sys
import tempfile
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


def run(*command, cwd=None, stderr=subprocess.STDOUT):
    """What a command prints, as a terminal shows it, and its status."""
    result = subprocess.run(command, check=False, cwd=cwd, input=b"", stdout=subprocess.PIPE, stderr=stderr)
    return as_shown(result.stdout), result.returncode


def as_shown(output):
    """A carriage return lets the line be written over."""
    lines = output.decode(errors="replace").split("\n")
    return "\n".join(line.rstrip("\r ").split("\r")[-1] for line in lines).rstrip("\n")


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
            lines = enumerate(file.read_text(errors="replace").split("\n"), 1)
            complaints.extend(f"{file}:{number}: {line}" for number, line in lines if unwanted.search(line))


def shell():
    """shellcheck has no complaint about shell scripts."""
    scripts = [file for file in files() if file.read_bytes().startswith(b"#!/bin/bash")]
    complaints.extend(run("shellcheck", "--shell=bash", *scripts)[0].splitlines())


def links():
    """Links between pages lead to a file, and to a heading in it."""
    def anchors(page):
        headings = re.findall(r"^#+ *(.*)", page.read_text(), re.MULTILINE)
        return [re.sub(r"[^a-z0-9 _-]", "", heading.lower()).replace(" ", "-") for heading in headings]

    for page in files("*.md"):
        for target in re.findall(r"\]\((?!https?:)([^)]+)\)", page.read_text()):
            name, _, heading = target.partition("#")
            path = page.parent / name if name else page
            if not path.exists() or heading and heading not in anchors(path):
                complaints.append(f"{page}: {target}: no such file or heading")


def chips():
    """The page of supported chips is the one that the chip list makes."""
    with tempfile.NamedTemporaryFile() as made:
        output_of("cmake", "-DSPILIST=build/host/spilist", "-DSOURCE=spilist/chips.toml", f"-DPAGE={made.name}",
                  f"-DTEMPLATE={Path('spilist/chips.md.in').resolve()}", "-P", "spilist/write_page.cmake")
        if Path(made.name).read_bytes() != Path("docs/chips.md").read_bytes():
            complaints.append("docs/chips.md is stale: cmake --build --preset host --target chips_page")


def messages(shortest, *without):
    """The program's messages. The longest piece without a conversion or a line end stands for its message."""
    sources = [source.read_text() for source in PROGRAM.glob("*.cpp") if source.stem not in without]
    literals = re.findall(r'"((?:[^"\\]|\\.)*)"', re.sub(r'" *"', "", "".join(sources).replace("\n", "")))
    pieces = {max(re.split(r"\\[nrt]|%[-0-9.*]*[lh]?[a-zA-Z]", literal.replace('\\"', '"')), key=len)
              for literal in literals if re.search(r"\\n|%|\.\.\.", literal)}
    return sorted(piece.replace("\\\\", "\\") for piece in pieces if len(piece) >= shortest and piece.strip())


def outcomes():
    """What the last lines of flash say. The longest text of each stands for it."""
    source = "".join(source.read_text() for source in Path("ShellPkg/Application/flash").glob("*.cpp"))
    calls = re.findall(r'\b(?:done|failed|held|refused)\(\s*"((?:[^"\\]|\\.)*)"', re.sub(r'" *\n *"', "", source))
    return {max(call.replace('\\"', '"').split("@"), key=len) for call in calls} - {""}


def tables():
    """Pages have every message and adapter, and a session has every message that one can have."""
    # Help and PHY test have pages of their own; lines of the parameter script and of hex dumps are no messages.
    page = Path("docs/troubleshooting.md").read_text()
    complaints.extend(f'docs/troubleshooting.md does not have "{piece}"'
                      for piece in messages(7, "help", "phy_test", "status_text")
                      if piece not in page and not piece.startswith(("  ", "echo", "set ")))
    # A unit test has the status texts.
    unreachable = re.findall(r"^(.*?) => ", Path("tests/sessions/unreachable").read_text(), re.MULTILINE)
    sessions = "".join(path.read_text() for path in [*Path("tests/sessions").glob("*.txt"), *Path("tests").glob("job*")])
    reachable = {*messages(3, "status_text"), *outcomes()}
    for piece in {*reachable, *unreachable}:
        if (piece in unreachable) == (piece in sessions) or piece not in reachable:
            complaints.append(f'"{piece}" must be a message in a session, or in tests/sessions/unreachable, not both')

    page, source = Path("docs/adapters.md").read_text(), (PROGRAM / "discover.cpp").read_text()
    kinds = {"INDEXED": 1, "BAR2": 2, "BAR0": 4}
    pattern = r"^ *\{0x(....), 0x(....), QFU_FLASH_IF_([A-Z0-9]+), *([0-9]+), *([0-9]+),"
    for vendor, device, kind, generation, ports in re.findall(pattern, source, re.MULTILINE):
        row = f"\n| {vendor} | {device} | {kinds.get(kind, kind)} | {generation} | {ports} |"
        if row not in page:
            complaints.append(f"docs/adapters.md does not have {row[1:]}")


def docs():
    """Code blocks of the pages do what the page shows.

    Each stands after a marker, a comment that readers do not see:
      <!-- run -->              commands of a Linux shell. Each after "$ ", its output below it, or all without any
      <!-- run: fails -->       the same; every command ends with a status other than 0
      <!-- shell: MACHINE -->   the same at the UEFI shell's prompt, on the emulator with this machine file
      <!-- file: NAME -->       the contents of a file that a later block needs
      <!-- add to: NAME -->     lines that are added to the end of a file
      <!-- text -->             no commands: an output, a part of a file
      <!-- not run: REASON -->  commands that cannot be run here
    <!-- before: COMMAND --> runs what a reader has done already. In an output "..." stands for any text. The tree is
    copied for each page, and a "cd" holds to the end of it. At the UEFI shell are a chip list and an image.bin."""
    for page in [Path(name) for name in sys.argv[2:]] or files("*.md"):
        with tempfile.TemporaryDirectory() as parent:
            Page(page, Path(parent))


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
            yield line, marker, re.sub("^    ", "", code, flags=re.MULTILINE).rstrip("\n")
            marker = ""
        elif comment.startswith("before: "):
            yield line, "run", comment.removeprefix("before: ")
        else:
            marker = comment


class Page:
    """Runs a page's blocks in a copy of the tree, and at a UEFI shell with a volume."""

    def __init__(self, page, parent):
        self.page, self.line, self.last_error = page, 0, ""
        self.place, self.uefi, self.end = parent / "tree", parent, parent / "directory"
        output_of("mkdir", "-p", self.place / "build", parent / "volume")
        self.end.write_text(str(self.place))
        output_of("cp", "--parents", "-t", self.place, *files())
        output_of("git", "init", "-q", self.place)
        for name in "efi", "fast", "flash.man", "host", "qfu.man", "spilist.bin":
            self.place.joinpath("build", name).symlink_to(Path("build", name).resolve())
        parent.joinpath("volume/spilist.bin").write_bytes(Path("build/spilist.bin").read_bytes())
        parent.joinpath("volume/image.bin").write_bytes(os.urandom(3000))
        for self.line, marker, text in blocks(page):
            self.block(marker, text)
        if left := set(os.listdir(self.place)) - {file.parts[0] for file in files()} - {".git", "build"}:
            self.complain(f"the page leaves beside the sources: {left}")

    def complain(self, text):
        complaints.append(f"{self.page}:{self.line}: {text}")

    def block(self, marker, text):
        kind, _, value = marker.partition(": ")
        if marker in ("run", "run: fails"):
            self.commands(self.in_linux, "$ ", marker, text)
        elif kind == "shell" and value:
            self.commands(lambda command: self.in_uefi(self.place / value, command), "FS0:\\> ", marker, text)
        elif kind in ("file", "add to") and value:
            file = self.place / value
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_text(f"{file.read_text()}\n{text}\n" if kind == "add to" else f"{text}\n")
        elif kind == "not run" and value:
            self.check_names(text.split())
        elif marker != "text":
            self.complain(f'a code block needs a marker, not "{marker}"; tests/checks/tree.py lists them')

    def commands(self, run_one, prompt, marker, text):
        """Runs each command, and compares its output with the lines up to the next prompt."""
        start, *steps = re.split("^" + re.escape(prompt), text.replace("\\\n", ""), flags=re.MULTILINE)
        if start and (steps or prompt != "$ "):
            self.complain(f'a session begins with "{prompt}"')
        # A block of Linux commands without prompts runs as one, whatever it prints.
        for command, expected in [step.partition("\n")[::2] for step in steps] or [(start, "...")]:
            output, status = run_one(command)
            pattern = ".*".join(re.escape(piece) for piece in as_shown(expected.encode()).split("..."))
            if not re.fullmatch(pattern, output, re.DOTALL):
                self.complain(f'"{command}" does not print what the page shows, but\n{output}')
            if marker == "run" and status != 0 or marker == "run: fails" and status == 0:
                self.complain(f'"{command}" ends with status {status}:\n{output}')

    def in_linux(self, command):
        return run("timeout", "60", "bash", "-euo", "pipefail", "-c", f"trap 'pwd >{self.end}' EXIT\n{command}",
                   cwd=self.end.read_text().rstrip("\n"))

    def in_uefi(self, machine, command):
        """Does at the emulator what a command does at the UEFI shell's prompt."""
        name, *arguments = command.split()
        if command == "echo %lasterror%":
            return self.last_error, 0
        if name == "type":
            return as_shown((self.uefi / "volume" / arguments[0]).read_bytes()), 0
        assert name in ("qfu", "flash"), f"{self.page}: {command}"
        output, status = run("timeout", "60", Path("build/host/qfu-emu").resolve(), "--machine", machine, "--dir",
                             "volume", "--keys", "", "--program", name, "--", *arguments, cwd=self.uefi,
                             stderr=subprocess.DEVNULL)
        self.last_error = f"0x{status}"
        return output, status

    def check_names(self, names):
        """What is not run names at least scripts, presets and targets that exist."""
        presets = re.findall(r'"name": "(.*?)"', Path("CMakePresets.json").read_text())
        targets = re.findall(r"^(.*?): ", output_of("ninja", "-C", "build/host", "-t", "targets", "all"), re.MULTILINE)
        for option, name in zip(["", *names], names):
            if (option == "--preset" and name not in presets or option == "--target" and name not in targets
                    or name.startswith(("scripts/", "tests/")) and not os.access(name, os.X_OK)):
                self.complain(f"no preset, target or script {name}")


checks = {check.__name__: check for check in (chips, docs, links, modes, shell, tables, words)}
if not sys.argv[1:] or sys.argv[1] not in checks:
    sys.exit(f"{__doc__}\nCHECK is one of: {' '.join(checks)}")
checks[sys.argv[1]]()
print("\n".join(complaints) or f"{sys.argv[1]}: {checks[sys.argv[1]].__doc__.splitlines()[0]}")
sys.exit(bool(complaints))
