#!/usr/bin/env python3
"""What --trace records is what happened.

sigrok reads the wires of a write, a dump and an erase, on an indexed and on a window controller. The bytes are those
of our own log, and BUSY is what each status read says. The parallel bus is read from the second file. With a name,
the wires in NAME.vcd are compared with NAME.log, and nothing else.
usage: tests/checks/trace.py [NAME]
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]


def fail(text):
    sys.exit(f"trace: {text}")


def run(name, machine, *words, options=()):
    """Leaves NAME.vcd, NAME.registers.vcd and NAME.log."""
    pathlib.Path("machine.toml").write_text(machine)
    command = [ROOT / "build/host/qfu-emu", "--machine", "machine.toml", "--trace", f"{name}.vcd", "--log",
               f"{name}.log", *options, "--", *words]
    result = subprocess.run(command, capture_output=True, text=True, stdin=subprocess.DEVNULL)
    if result.returncode:
        fail(f"{name}: {result.stdout}{result.stderr}")


def wires(name):
    """The cycles on adapter 0's wires: first sample, bytes out, bytes in."""
    pins = "spi:clk=SCK0:mosi=MOSI0:miso=MISO0:cs=CS0"
    text = subprocess.run(
        ["sigrok-cli", "-I", "vcd", "-i", f"{name}.vcd", "-P", pins, "-A", "spi=mosi-transfer:miso-transfer",
         "--protocol-decoder-samplenum"], capture_output=True, text=True).stdout
    rows = [re.match(r"(\d+)-\d+ \S+ (.*)", line).groups() for line in text.splitlines()]
    return [(int(out[0]), out[1].split(), back[1].split()) for back, out in zip(rows[::2], rows[1::2])]


def logged(name):
    """The same cycles from the log: opcode and address, direction, data."""
    for line in pathlib.Path(f"{name}.log").read_text().splitlines():
        cycle = re.search(r"  0\.cs1  (..)(?: @(\w{6}))? *(?:([<>]) ((?:\w\w )*\w\w))?  ", line + "  ")
        if cycle:
            opcode, address, direction, data = cycle.groups()
            yield [opcode, *re.findall("..", address or "")], direction, (data or "").split()


def compare_wires(name, least=1):
    found, wanted = wires(name), list(logged(name))
    if len(found) != len(wanted) or len(found) < least:
        fail(f"{name}: {len(found)} cycles decoded, {len(wanted)} logged")
    for (_, out, back), (head, direction, data) in zip(found, wanted):
        seen = (back if direction == "<" else out)[len(head):]
        if out[:len(head)] != head or len(out) != len(head) + len(data) or seen != data:
            fail(f"{name}: the wires have {out} and {back}, the log {head} {direction} {data}")
    return found


def compare_busy(name, found):
    """BUSY is high while status reads say so."""
    vcd = pathlib.Path(f"{name}.vcd").read_text()
    sign = re.search(r"\$var \w+ 1 (\S+) BUSY0 ", vcd)[1]
    level, time, first, changes = 0, 0, None, []
    for line in vcd.splitlines():
        if line.startswith("#"):
            time = int(line[1:])
            first = time if first is None else first
        elif line[1:] == sign:
            changes.append((time - first, int(line[0])))
    levels = set()
    for start, out, back in found:
        if out[0] == "05":
            level = [value for when, value in changes if when <= start][-1]
            levels.add(level)
            if level != int(back[1], 16) & 1:
                fail(f"{name}: BUSY is {level} where the status is {back[1]}")
    if levels != {0, 1}:
        fail(f"{name}: no status read found the chip busy and ready")


def compare_parallel_bus():
    run("nor", "[[adapter]]\ndevice = 0xC703\nslot = 2\n[adapter.nor]\nid = 0x22CB00C2\n", "-wbf", "image.bin", "-addr",
        "0", "-csid", "0", "-y")
    names, values, seen, times = {}, {}, [], 0
    for line in pathlib.Path("nor.registers.vcd").read_text().splitlines():
        if line.startswith("$var"):
            names[line.split()[3]] = line.split()[4]
        elif line.startswith("b"):
            values[names[line.split()[1]]] = int(line.split()[0][1:], 2)
        elif line.startswith("#"):
            times += 1
        elif times > 1 and line.startswith("1") and names.get(line[1:]) in ("WE0", "OE0"):
            seen.append((values["A0"], names[line[1:]], values["DQ0"]))
    cycles = re.findall(r"(\w{6}) ([<>]) (\w{4})", "".join(
        line + "\n" for line in pathlib.Path("nor.log").read_text().splitlines() if " 0.cs0 " in line))
    wanted = [(int(address, 16), "WE0" if way == ">" else "OE0", int(data, 16)) for address, way, data in cycles]
    if seen != wanted or len(seen) < 50:
        fail(f"parallel bus: {len(seen)} cycles recorded, {len(wanted)} logged, or they differ")


def check_pictures():
    subprocess.run([ROOT / "scripts/draw-pictures", os.getcwd()], check=True, stdout=subprocess.DEVNULL)
    for picture in (ROOT / "docs/pictures").glob("*.png"):
        made = pathlib.Path(picture.name)
        if not made.exists() or not 0 < made.stat().st_size < 40960:
            fail(f"no small {picture.name}")


def main():
    if len(sys.argv) > 1:
        print(f"trace: {len(compare_wires(sys.argv[1]))} cycles are on the wires as they are in the log")
        return
    for device in ("0xC709", "0xC705"):
        machine = (f"[[adapter]]\ndevice = {device}\nslot = 2\n[adapter.spi]\npart = \"W25X40\"\n"
                   "image = \"chip.bin\"\n")
        pathlib.Path("chip.bin").unlink(missing_ok=True)
        pathlib.Path("image.bin").write_bytes(os.urandom(37))
        run("write", machine, "-wbf", "image.bin", "-addr", "0x1000", "-y")
        compare_busy("write", compare_wires("write", 100))
        run("dump", machine, "-rfb", "dump.bin", "-addr", "0x1000", "-sz", "37")
        compare_wires("dump", 10)
    # A stretch holds just the cycles that the log has in it.
    times = [line.split()[0] for line in pathlib.Path("write.log").read_text().splitlines()]
    run("stretch", machine, "-wbf", "image.bin", "-addr", "0x1000", "-y",
        options=("--trace-from", times[59], "--trace-to", times[119]))
    lines = pathlib.Path("stretch.log").read_text().splitlines()
    pathlib.Path("stretch.log").write_text(
        "".join(line + "\n" for line in lines if float(times[59]) <= float(line.split()[0]) < float(times[119])))
    compare_wires("stretch", 20)
    # A fault that strikes is marked once, after its cycle.
    run("fault", machine + "[[adapter.spi.fault]]\nkind = \"not stored\"\non = \"program\"\naddress = 0x1003\n", "-wbf",
        "image.bin", "-addr", "0x1000", "-y")
    if pathlib.Path("fault.vcd").read_text().count("\ns0.cs1:_fault:_not_stored ") != 1:
        fail("the fault is not marked")
    compare_parallel_bus()
    check_pictures()
    print("trace: sigrok reads the wires as the log has them, and the pictures can be made")


if len(sys.argv) > 1:
    sys.argv[1] = os.path.abspath(sys.argv[1])
with tempfile.TemporaryDirectory() as place:
    shutil.copy(ROOT / "build/spilist.bin", place)
    os.chdir(place)
    try:
        main()
    finally:
        os.chdir(ROOT)
