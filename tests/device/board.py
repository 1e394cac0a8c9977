"""One boot of the emulated board: QEMU's "virt" machine with Debian's armmp kernel and an archive from image.py."""

import dataclasses
import io
import pathlib
import subprocess
import tarfile

import image

COMMAND_LINE = "console=ttyAMA0 panic=-1 quiet printk.devkmsg=on"
CONSOLE_LINES = 40


class BoardFailure(Exception):
    """The board panicked, hung or sent no result. The text contains the last lines of its console."""


@dataclasses.dataclass
class Result:
    status: int
    output: str
    kernel_log: str


def command(archive, directory, extra=()):
    # Without hardware support for virtualisation, one processor and an uncompressed archive are the fastest.
    return ["qemu-system-arm", "-M", "virt", "-cpu", "cortex-a15", "-smp", "1", "-m", "256", "-nic", "none",
            "-display", "none", "-monitor", "none", "-no-reboot",
            "-kernel", str(image.kernel()), "-initrd", str(archive), "-append", COMMAND_LINE,
            "-serial", f"file:{directory}/console",
            "-device", "virtio-serial-device", "-chardev", f"file,id=result,path={directory}/result",
            "-device", "virtserialport,chardev=result,name=result", *extra]


def console_end(directory):
    try:
        lines = (pathlib.Path(directory) / "console").read_text(errors="replace").splitlines()
    except FileNotFoundError:
        return "(no console)"
    return "\n".join(lines[-CONSOLE_LINES:])


def boot(archive, directory, timeout):
    """Runs the board until it powers off. Returns the result that its init sent. Raises BoardFailure."""
    directory = pathlib.Path(directory)
    with subprocess.Popen(command(archive, directory), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT) as qemu:
        try:
            words, _ = qemu.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            qemu.kill()
            qemu.communicate()
            raise BoardFailure(f"no result after {timeout} s; the console ended:\n{console_end(directory)}") from None
    if qemu.returncode != 0:
        raise BoardFailure(f"the emulator exited with {qemu.returncode}: {words.decode(errors='replace')}")
    # The emulator also exits with 0 when the kernel panics.
    members = {}
    try:
        with tarfile.open(fileobj=io.BytesIO((directory / "result").read_bytes())) as archive_of_results:
            for member in archive_of_results:
                if member.isfile():
                    members[pathlib.Path(member.name).name] = archive_of_results.extractfile(member).read().decode(
                        errors="replace")
        return Result(int(members["rc"]), members["output"], members["dmesg"])
    except (OSError, tarfile.TarError, KeyError, ValueError):
        raise BoardFailure(f"no result; the console ended:\n{console_end(directory)}") from None
