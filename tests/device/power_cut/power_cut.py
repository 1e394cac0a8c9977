"""Cuts the power of the emulated board while the daemon writes, and looks at what the registry file holds afterwards."""

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

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

import board  # noqa: E402
import image  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
BOOT_TIMEOUT = 120
# The journal of ext4 is committed every 5 s: cuts before, between and after commits.
LONGEST_STORM = 12
MOUNT_OPTIONS = {"ext4": "rw", "ext4-noauto_da_alloc": "noauto_da_alloc", "ubifs": "rw", "ubifs-sync": "sync"}


def text_of(number):
    """The registry's text after the storm's write of that number."""
    return f"[storm]\nvalue={number} {chr(ord('a') + number % 26) * (number * 7919 % 2**32 % 16000)}\n".encode()


class Verdicts:
    """Compares each file that was found with the texts that the daemon had accepted."""

    def __init__(self):
        self.counts = collections.Counter()
        self.behind = []
        self.damaged = 0

    def judge(self, found, flushed):
        """`flushed` is the last number that the client was told was written, 0 if there was none in any life."""
        if found == "missing":
            verdict = "missing, nothing was ever on the flash" if flushed == 0 else "missing"
            self.damaged += flushed != 0 and bool(self.behind)
        else:
            try:
                content = base64.b64decode(found, validate=True)
            except binascii.Error:
                content = b"?"
            number = self._number(content)
            # The daemon may have written one more, whose answer no longer came.
            if number is not None and content == text_of(number) and number <= flushed + 1:
                verdict = "a whole accepted text"
                self.behind.append(max(0, flushed - number))
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
        if self.behind:
            print(f"  flushes before the cut that the file did not have yet: median "
                  f"{sorted(self.behind)[len(self.behind) // 2]}, at most {max(self.behind)}")


def pack(build, script, number, mount_options, folder):
    archive = folder / "archive"
    packed = image.Image(folder / "tree")
    packed.add_system()
    packed.add_product(build)
    packed.add_file(HERE / script, "scenario/run.sh")
    packed.add_text("scenario/number", str(number))
    packed.add_text("scenario/mount_options", mount_options)
    packed.write(archive)
    return archive


def lines_of(path):
    return path.read_text(errors="replace").split("\n")[:-1] if path.exists() else []


def life(archive, folder, disk, storm_seconds):
    """One boot that is cut `storm_seconds` after the first flush. Returns what was found before and the last flush."""
    result = folder / "result"
    result.unlink(missing_ok=True)
    extra = ["-drive", f"if=none,id=disk,format=raw,cache=unsafe,file={disk}", "-device", "virtio-blk-device,drive=disk"]
    with subprocess.Popen(board.command(archive, folder, extra), stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL) as qemu:
        deadline = time.monotonic() + BOOT_TIMEOUT
        while not any(line.startswith("flushed") for line in lines_of(result)):
            if time.monotonic() > deadline or qemu.poll() is not None:
                qemu.kill()
                raise board.BoardFailure(f"the storm did not begin; the board said {lines_of(result)} and its console ended:\n"
                                         f"{board.console_end(folder)}")
            time.sleep(0.02)
        time.sleep(storm_seconds)
        qemu.kill()
    lines = lines_of(result)
    found = next(line.split(" ", 1)[1] for line in lines if line.startswith("found"))
    flushed = [int(line.split()[1]) for line in lines if line.startswith("flushed")]
    return found, flushed[-1]


def cut_ext4(build, name, cuts, generator, folder):
    disk = folder / "disk"
    subprocess.run(["mke2fs", "-q", "-t", "ext4", disk, "16M"], check=True, stdout=subprocess.DEVNULL)
    verdicts = Verdicts()
    flushed = 0
    for cut in range(cuts + 1):
        with tempfile.TemporaryDirectory(prefix="ledgerd-board-") as boot_folder:
            boot_folder = pathlib.Path(boot_folder)
            archive = pack(build, "ext4.sh", flushed + 2, MOUNT_OPTIONS[name], boot_folder)
            storm = generator.uniform(0, LONGEST_STORM) if cut < cuts else 0
            found, flushed_now = life(archive, boot_folder, disk, storm)
        if cut > 0:
            print(f"{name} cut {cut}: {verdicts.judge(found, flushed)}, flushed {flushed}", flush=True)
        flushed = flushed_now
    return verdicts


def cut_ubifs(build, name, cuts, _, folder):
    # Each life in the guest takes seconds; the bound is generous.
    archive = pack(build, "ubifs.sh", cuts, MOUNT_OPTIONS[name], folder)
    result = board.boot(archive, folder, BOOT_TIMEOUT + 60 * cuts)
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
    parser.add_argument("--build", type=pathlib.Path, required=True, help="folder of the armhf build")
    parser.add_argument("--seed", type=int, default=random.randrange(2**32))
    parser.add_argument("cuts", type=int)
    parser.add_argument("file_system", nargs="*", choices=[[], *kinds], help="default: all")
    arguments = parser.parse_intermixed_args()
    print(f"seed {arguments.seed}")
    damaged = 0
    for name in arguments.file_system or kinds:
        with tempfile.TemporaryDirectory(prefix="ledgerd-board-") as folder:
            verdicts = kinds[name](arguments.build, name, arguments.cuts, random.Random(arguments.seed),
                                   pathlib.Path(folder))
        verdicts.report(name)
        # Where the file system orders a rename after the data, the file is always whole.
        damaged += verdicts.damaged if name in ("ext4", "ubifs-sync") else 0
    return 1 if damaged else 0


if __name__ == "__main__":
    sys.exit(main())
