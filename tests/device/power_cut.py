"""Cuts the power of the emulated board while the daemon writes, and checks the registry file afterwards."""

import argparse
import base64
import binascii
import collections
import pathlib
import random
import subprocess
import sys
import tempfile
import time

import board
import image

STORMS = pathlib.Path(__file__).resolve().parent / "power_cut"
BOOT_TIMEOUT = 120
# ext4 commits its journal every 5 s. The cuts are before, between and after commits.
LONGEST_STORM = 12
MOUNT_OPTIONS = {"ext4": "rw", "ext4-noauto_da_alloc": "noauto_da_alloc", "ubifs": "rw", "ubifs-sync": "sync"}


def text_of(number):
    """Returns the text of the registry after the write with that number."""
    return f"[storm]\nvalue={number} {chr(ord('a') + number % 26) * (number * 7919 % 2**32 % 16000)}\n".encode()


class Verdicts:
    """Compares each file that was found after a cut with the texts that the daemon had accepted."""

    def __init__(self):
        self.counts = collections.Counter()
        self.lags = []
        self.damaged = 0

    def judge(self, found, flushed):
        """`flushed` is the number of the last write that the daemon has confirmed to the client, or 0 if there was none
        in any life."""
        if found == "missing":
            verdict = "missing, nothing was ever flushed" if flushed == 0 else "missing"
            self.damaged += flushed != 0 and bool(self.lags)
        else:
            try:
                content = base64.b64decode(found, validate=True)
            except binascii.Error:
                content = b"?"
            number = self._number(content)
            # The daemon may have written one more text whose reply did not arrive.
            if number is not None and content == text_of(number) and number <= flushed + 1:
                verdict = "a complete accepted text"
                self.lags.append(max(0, flushed - number))
            else:
                verdict = "empty" if not content else "torn"
                self.damaged += 1
        self.counts[verdict] += 1
        return verdict

    @staticmethod
    def _number(content):
        words = content.removeprefix(b"[storm]\nvalue=").split(b" ", 1)
        return int(words[0]) if words[0].isdigit() else None

    def report(self, name):
        print(f"{name}: {sum(self.counts.values())} files found after a cut")
        for verdict, count in self.counts.most_common():
            print(f"  {count:4} {verdict}")
        if self.lags:
            print(f"  confirmed flushes that the file did not contain: median "
                  f"{sorted(self.lags)[len(self.lags) // 2]}, at most {max(self.lags)}")


def pack(build, script, number, mount_options, directory):
    archive = directory / "archive"
    packed = image.Image(directory / "tree")
    packed.add_system()
    packed.add_product(build)
    packed.add_file(STORMS / script, "scenario/run.sh")
    packed.add_text("scenario/number", str(number))
    packed.add_text("scenario/mount_options", mount_options)
    packed.write(archive)
    return archive


def lines_of(path):
    return path.read_text(errors="replace").split("\n")[:-1] if path.exists() else []


def life(archive, directory, disk, storm_seconds):
    """Boots once and cuts the power `storm_seconds` after the first flush. Returns the contents of the file at the boot
    and the number of the last flush."""
    result = directory / "result"
    result.unlink(missing_ok=True)
    extra = ["-drive", f"if=none,id=disk,format=raw,cache=unsafe,file={disk}", "-device", "virtio-blk-device,drive=disk"]
    with subprocess.Popen(board.command(archive, directory, extra), stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL) as qemu:
        deadline = time.monotonic() + BOOT_TIMEOUT
        while not any(line.startswith("flushed") for line in lines_of(result)):
            if time.monotonic() > deadline or qemu.poll() is not None:
                qemu.kill()
                raise board.BoardFailure(f"the storm did not begin; the board sent {lines_of(result)}; "
                                         f"the console ended:\n{board.console_end(directory)}")
            time.sleep(0.02)
        time.sleep(storm_seconds)
        qemu.kill()
    lines = lines_of(result)
    found = next(line.split(" ", 1)[1] for line in lines if line.startswith("found"))
    flushed = [int(line.split()[1]) for line in lines if line.startswith("flushed")]
    return found, flushed[-1]


def cut_ext4(build, name, cuts, generator, directory):
    disk = directory / "disk"
    subprocess.run(["mke2fs", "-q", "-t", "ext4", disk, "16M"], check=True, stdout=subprocess.DEVNULL)
    verdicts = Verdicts()
    flushed = 0
    for cut in range(cuts + 1):
        with tempfile.TemporaryDirectory(prefix="ledgerd-board-") as boot_directory:
            boot_directory = pathlib.Path(boot_directory)
            archive = pack(build, "ext4.sh", flushed + 2, MOUNT_OPTIONS[name], boot_directory)
            storm = generator.uniform(0, LONGEST_STORM) if cut < cuts else 0
            found, flushed_now = life(archive, boot_directory, disk, storm)
        if cut > 0:
            print(f"{name} cut {cut}: {verdicts.judge(found, flushed)}, flushed {flushed}", flush=True)
        flushed = flushed_now
    return verdicts


def cut_ubifs(build, name, cuts, _, directory):
    # A life takes a few seconds in the guest. The bound is generous.
    archive = pack(build, "ubifs.sh", cuts, MOUNT_OPTIONS[name], directory)
    result = board.boot(archive, directory, BOOT_TIMEOUT + 60 * cuts)
    if result.status != 0:
        raise board.BoardFailure(f"ended with status {result.status}:\n{result.output}\n{result.kernel_log[-3000:]}")
    verdicts = Verdicts()
    flushed = 0
    lives = 0
    for line in result.output.splitlines():
        words = line.split()
        if words[0] == "flushed":
            flushed = int(words[1])
        elif words[0] == "found":
            if lives > 0:
                print(f"{name} cut {lives}: {verdicts.judge(words[1] if len(words) > 1 else '', flushed)}, "
                      f"flushed {flushed}", flush=True)
            lives += 1
    if lives != cuts + 1:
        raise board.BoardFailure(f"{lives} lives instead of {cuts + 1}:\n{result.output}")
    return verdicts


def main():
    kinds = {"ext4": cut_ext4, "ext4-noauto_da_alloc": cut_ext4, "ubifs": cut_ubifs, "ubifs-sync": cut_ubifs}
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=pathlib.Path, required=True, help="directory of the armhf build")
    parser.add_argument("--seed", type=int, default=random.randrange(2**32))
    parser.add_argument("cuts", type=int)
    parser.add_argument("file_system", nargs="*", choices=[[], *kinds], help="default: all")
    arguments = parser.parse_intermixed_args()
    print(f"seed {arguments.seed}")
    damaged = 0
    for name in arguments.file_system or kinds:
        with tempfile.TemporaryDirectory(prefix="ledgerd-board-") as directory:
            verdicts = kinds[name](arguments.build, name, arguments.cuts, random.Random(arguments.seed),
                                   pathlib.Path(directory))
        verdicts.report(name)
        # These file systems write the data before a rename, so the file is always complete.
        damaged += verdicts.damaged if name in ("ext4", "ubifs-sync") else 0
    return 1 if damaged else 0


if __name__ == "__main__":
    sys.exit(main())
