"""One boot of the emulated board: QEMU's "virt" machine with Debian's armmp kernel and the archive of image.py."""

import io
import pathlib
import subprocess
import tarfile
import typing

import image

CONSOLE_LINES = 40


class BoardFailure(Exception):
    """The board panicked, hung or sent no result. The text contains the last lines of its console."""


class Result(typing.NamedTuple):
    status: int
    output: str
    kernel_log: str


def command(archive, directory, scenario, *extra, **variables):
    """Returns the command that boots the board for a scenario, with these environment variables."""
    # The kernel passes the parameters that it does not know to init, as environment variables.
    words = ["console=ttyAMA0 panic=-1 quiet printk.devkmsg=on", f"scenario={scenario}",
             *(f"{name}={value}" for name, value in variables.items())]
    # Without hardware support for virtualisation, one processor and an uncompressed archive are the fastest.
    return ["qemu-system-arm", "-M", "virt", "-cpu", "cortex-a15", "-smp", "1", "-m", "256", "-nic", "none",
            "-display", "none", "-monitor", "none", "-no-reboot",
            "-kernel", str(image.kernel()), "-initrd", str(archive), "-append", " ".join(words),
            "-serial", f"file:{directory}/console",
            "-device", "virtio-serial-device", "-chardev", f"file,id=result,path={directory}/result",
            "-device", "virtserialport,chardev=result,name=result", *extra]


def failure(text, directory):
    console = pathlib.Path(directory) / "console"
    lines = console.read_text(errors="replace").splitlines() if console.exists() else ["(no console)"]
    return BoardFailure("\n".join([f"{text}; the console ended:", *lines[-CONSOLE_LINES:]]))


def boot(archive, directory, timeout, scenario, **variables):
    """Runs the board until it powers off. Returns the result that its init sent. Raises BoardFailure."""
    try:
        subprocess.run(command(archive, directory, scenario, **variables), stdin=subprocess.DEVNULL, check=True,
                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=timeout)
    except subprocess.TimeoutExpired:
        raise failure(f"no result after {timeout} s", directory) from None
    except subprocess.CalledProcessError as error:
        raise BoardFailure(f"the emulator exited with {error.returncode}: {error.output}") from None
    # The emulator also exits with 0 when the kernel panics.
    try:
        with tarfile.open(fileobj=io.BytesIO((pathlib.Path(directory) / "result").read_bytes())) as sent:
            status, output, log = (sent.extractfile(f"./{name}").read().decode(errors="replace")
                                   for name in ("rc", "output", "dmesg"))
        return Result(int(status), output, log)
    except (OSError, tarfile.TarError, KeyError, ValueError):
        raise failure("no result", directory) from None
