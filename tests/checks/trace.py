#!/usr/bin/env python3
"""What --trace records is what happened.

sigrok reads the wires of a write and a dump, on an indexed and on a window controller. The bytes are those of our own
log, and BUSY is what each status read says. The parallel bus is read from the second file. A guest's trace is read, too.
"""
import os
from pathlib import Path
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = Path(__file__).resolve().parents[2]
WRITE = "-wbf image.bin -addr 0x1000 -y"


def fail(text):
    sys.exit(f"trace: {text}")


def run(name, machine, line, *options):
    """Leaves NAME.vcd, NAME.registers.vcd and NAME.log. @returns the log's lines"""
    Path("machine.toml").write_text(machine)
    result = subprocess.run([ROOT / "build/host/qfu-emu", "--machine", "machine.toml", "--trace", f"{name}.vcd",
                             "--log", f"{name}.log", *options, "--", *line.split()],
                            capture_output=True, text=True, stdin=subprocess.DEVNULL)
    if result.returncode:
        fail(f"{name}: {result.stdout}{result.stderr}")
    return Path(f"{name}.log").read_text().splitlines()


def wires(name):
    """The cycles on adapter 0's wires: first sample, bytes out, bytes in."""
    pins = "spi:clk=SCK0:mosi=MOSI0:miso=MISO0:cs=CS0"
    text = subprocess.run(
        ["sigrok-cli", "-I", "vcd", "-i", f"{name}.vcd", "-P", pins, "-A", "spi=mosi-transfer:miso-transfer",
         "--protocol-decoder-samplenum"], capture_output=True, text=True).stdout
    rows = [re.match(r"(\d+)-\d+ \S+ (.*)", line).groups() for line in text.splitlines()]
    return [(int(out[0]), out[1].split(), back[1].split()) for back, out in zip(rows[::2], rows[1::2])]


def compare_wires(name, log, least):
    """The wires have the log's cycles: opcode and address, direction, data."""
    found = wires(name)
    wanted = re.findall(r"  0\.cs1  (..)(?: @(\w{6}))? *(?:([<>]) ((?:\w\w )*\w\w))?  ", "  \n".join(log) + "  ")
    if len(found) != len(wanted) or len(found) < least:
        fail(f"{name}: {len(found)} cycles decoded, {len(wanted)} logged")
    for (_, out, back), (opcode, address, direction, data) in zip(found, wanted):
        head = [opcode, *re.findall("..", address)]
        seen = (back if direction == "<" else out)[len(head):]
        if out[:len(head)] != head or len(out) != len(back) or seen != data.split():
            fail(f"{name}: the wires have {out} and {back}, the log {head} {direction} {data}")
    return found


def changes(name):
    """What changes in NAME.vcd: time since its start, signal, value."""
    signals, start, time = {}, None, 0
    for line in Path(f"{name}.vcd").read_text().splitlines():
        if line.startswith("$var"):
            signals[line.split()[3]] = line.split()[4]
        elif line.startswith("#"):
            time = int(line[1:])
            start = time if start is None else start
        elif change := re.fullmatch(r"b([01]+) (\S+)|([01])(\S+)", line):
            value, sign = change.groups()[:2] if line[0] == "b" else change.groups()[2:]
            yield time - start, signals[sign], int(value, 2)


def compare_busy(name, found):
    """BUSY is high while status reads say so."""
    busy = [(time, level) for time, signal, level in changes(name) if signal == "BUSY0"]
    statuses = [(start, int(back[1], 16) & 1) for start, out, back in found if out[0] == "05"]
    for start, status in statuses:
        level = [level for time, level in busy if time <= start][-1]
        if level != status:
            fail(f"{name}: BUSY is {level} where a status read says {status}")
    if {status for _, status in statuses} != {0, 1}:
        fail(f"{name}: no status read found the chip busy and ready")


def compare_parallel_bus():
    log = run("nor", "[[adapter]]\ndevice = 0xC703\nslot = 2\n[adapter.nor]\nid = 0x22CB00C2\n",
              "-wbf image.bin -addr 0 -csid 0 -y")
    cycles = re.findall(r"(\w{6}) ([<>]) (\w{4})", "\n".join(line for line in log if " 0.cs0 " in line))
    wanted = [(int(address, 16), "WE0" if way == ">" else "OE0", int(data, 16)) for address, way, data in cycles]
    values, seen = {}, []
    for time, signal, value in changes("nor.registers"):
        values[signal] = value
        if time > 0 and value == 1 and signal in ("WE0", "OE0"):
            seen.append((values["A0"], signal, values["DQ0"]))
    if seen != wanted or len(seen) < 50:
        fail(f"parallel bus: {len(seen)} cycles recorded, {len(wanted)} logged, or they differ")


def compare_guest(machine):
    """The same in a guest, where time is real and firmware gives the BARs their addresses."""
    Path("machine.toml").write_text(machine)
    Path("startup.nsh").write_text("fs0:\r\nqfu -l\r\nreset -s\r\n")
    for command in ("truncate -s 64M volume.img", "mkfs.vfat -F 32 volume.img",
                    f"mcopy -i volume.img startup.nsh spilist.bin {ROOT}/build/efi/qfu.efi ::/"):
        subprocess.run(command.split(), check=True, stdout=subprocess.DEVNULL,
                       env=os.environ | {"PATH": os.environ["PATH"] + ":/usr/sbin"})
    subprocess.run([ROOT / "build/host/qfu-qemu", "--machine", "machine.toml", "--disk", "volume.img", "--log",
                    "guest.log", "--trace", "guest.vcd"], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    compare_wires("guest", Path("guest.log").read_text().splitlines(), 1)


def main():
    Path("image.bin").write_bytes(os.urandom(37))
    for device in ("0xC709", "0xC705"):
        machine = f"[[adapter]]\ndevice = {device}\nslot = 2\n[adapter.spi]\npart = \"W25X40\"\nimage = \"chip.bin\"\n"
        Path("chip.bin").unlink(missing_ok=True)
        log = run("write", machine, WRITE)
        compare_busy("write", compare_wires("write", log, 100))
        compare_wires("dump", run("dump", machine, "-rfb dump.bin -addr 0x1000 -sz 37"), 10)
    # A stretch holds just the cycles that the log has in it.
    first, last = log[59].split()[0], log[119].split()[0]
    log = run("stretch", machine, WRITE, "--trace-from", first, "--trace-to", last)
    compare_wires("stretch", [line for line in log if float(first) <= float(line.split()[0]) < float(last)], 20)
    # A fault that strikes is marked once, after its cycle.
    run("fault", machine + "[[adapter.spi.fault]]\nkind = \"not stored\"\non = \"program\"\naddress = 0x1003\n", WRITE)
    if Path("fault.vcd").read_text().count("\ns0.cs1:_fault:_not_stored ") != 1:
        fail("the fault is not marked")
    compare_parallel_bus()
    compare_guest(machine)
    print("trace: sigrok reads the wires as the log has them")


with tempfile.TemporaryDirectory() as place:
    shutil.copy(ROOT / "build/spilist.bin", place)
    os.chdir(place)
    main()
