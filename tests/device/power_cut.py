"""Cuts the power of the emulated board while the daemon writes, and checks the registry file afterwards."""

import argparse
import base64
import binascii
import collections
import pathlib
import random
import statistics
import subprocess
import sys
import tempfile
import time

import board
import image

BOOT_TIMEOUT = 120
# ext4 commits its journal every 5 s. The cuts are before, between and after commits.
LONGEST_STORM = 12
MOUNT_OPTIONS = {"ext4": "rw", "ext4-noauto_da_alloc": "noauto_da_alloc", "ubifs": "rw", "ubifs-sync": "sync"}


def text_of(number):
    """Returns the text of the registry after the write with that number."""
    return f"[storm]\nvalue={number} {chr(ord('a') + number % 26) * (number * 7919 % 2**32 % 16000)}\n".encode()


class Verdicts:
    """Compares each file that was found after a cut with the texts that the daemon had accepted."""

    def __init__(self, name):
        self.name = name
        self.counts = collections.Counter()
        self.lags = []
        self.damaged = 0

    def judge(self, found, flushed):
        """`flushed` is the number of the last write that the daemon has confirmed to the client, or 0 if there was none
        in any life."""
        try:
            content = base64.b64decode(found, validate=True)
        except binascii.Error:
            content = b"?"
        words = content.removeprefix(b"[storm]\nvalue=").split(b" ", 1)
        number = int(words[0]) if words[0].isdigit() else None
        if found == "missing":
            verdict = "missing, nothing was ever flushed" if flushed == 0 else "missing"
            self.damaged += flushed != 0 and bool(self.lags)
        # The daemon may have written one more text whose reply did not arrive.
        elif number is not None and content == text_of(number) and number <= flushed + 1:
            verdict = "a complete accepted text"
            self.lags.append(max(0, flushed - number))
        else:
            verdict = "torn" if content else "empty"
            self.damaged += 1
        self.counts[verdict] += 1
        print(f"{self.name} cut {self.counts.total()}: {verdict}, flushed {flushed}", flush=True)

    def report(self):
        print(f"{self.name}: {self.counts.total()} files found after a cut")
        for verdict, count in self.counts.most_common():
            print(f"  {count:4} {verdict}")
        if self.lags:
            print(f"  confirmed flushes that the file did not contain: median {statistics.median_high(self.lags)}, "
                  f"at most {max(self.lags)}")


def life(command, directory, storm_seconds):
    """Boots once and cuts the power `storm_seconds` after the first flush. Returns the contents of the file at the boot
    and the number of the last flush."""
    def sent(word):
        path = pathlib.Path(directory) / "result"
        lines = path.read_text(errors="replace").split("\n")[:-1] if path.exists() else []
        return [line.split(" ", 1)[1] for line in lines if line.startswith(word)]

    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL) as qemu:
        deadline = time.monotonic() + BOOT_TIMEOUT
        while not sent("flushed"):
            if time.monotonic() > deadline or qemu.poll() is not None:
                qemu.kill()
                raise board.failure("the storm did not begin", directory)
            time.sleep(0.02)
        time.sleep(storm_seconds)
        qemu.kill()
    return sent("found")[0], int(sent("flushed")[-1])


def cut_ext4(archive, directory, verdicts, cuts, generator):
    disk = f"{directory}/disk"
    subprocess.run(["mke2fs", "-q", "-t", "ext4", disk, "16M"], check=True, stdout=subprocess.DEVNULL)
    drive = f"if=none,id=disk,format=raw,cache=unsafe,file={disk}"
    flushed = 0
    for cut in range(cuts + 1):
        command = board.command(archive, directory, "ext4", "-drive", drive, "-device", "virtio-blk-device,drive=disk",
                                first_number=flushed + 2, mount_options=MOUNT_OPTIONS[verdicts.name])
        pathlib.Path(directory, "result").unlink(missing_ok=True)
        found, flushed_now = life(command, directory, generator.uniform(0, LONGEST_STORM) if cut < cuts else 0)
        if cut > 0:
            verdicts.judge(found, flushed)
        flushed = flushed_now


def cut_ubifs(archive, directory, verdicts, cuts, _):
    # A life takes a few seconds in the guest. The bound is generous.
    result = board.boot(archive, directory, BOOT_TIMEOUT + 60 * cuts, "ubifs", lives=cuts,
                        mount_options=MOUNT_OPTIONS[verdicts.name])
    if result.status != 0:
        raise board.BoardFailure(f"ended with status {result.status}:\n{result.output}\n{result.kernel_log[-3000:]}")
    flushed = 0
    found = []
    for line in result.output.splitlines():
        word, _, rest = line.partition(" ")
        if word == "flushed":
            flushed = int(rest)
        elif word == "found":
            if found:
                verdicts.judge(rest, flushed)
            found.append(rest)
    if len(found) != cuts + 1:
        raise board.BoardFailure(f"{len(found)} lives instead of {cuts + 1}:\n{result.output}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=pathlib.Path, required=True, help="directory of the armhf build")
    parser.add_argument("--seed", type=int, default=random.randrange(2**32))
    parser.add_argument("cuts", type=int)
    parser.add_argument("file_system", nargs="*", choices=[[], *MOUNT_OPTIONS], help="default: all")
    arguments = parser.parse_intermixed_args()
    print(f"seed {arguments.seed}")
    damaged = 0
    for name in arguments.file_system or MOUNT_OPTIONS:
        verdicts = Verdicts(name)
        with tempfile.TemporaryDirectory(prefix="ledgerd-board-") as directory:
            image.build(arguments.build, f"{directory}/archive")
            cut = cut_ubifs if name.startswith("ubifs") else cut_ext4
            cut(f"{directory}/archive", directory, verdicts, arguments.cuts, random.Random(arguments.seed))
        verdicts.report()
        # These file systems write the data before a rename, so the file is always complete.
        damaged += verdicts.damaged if name in ("ext4", "ubifs-sync") else 0
    return 1 if damaged else 0


if __name__ == "__main__":
    sys.exit(main())
