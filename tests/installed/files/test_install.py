"""Where the files go."""

import pathlib
import subprocess


def test_everything_is_installed_in_its_place(request, tmp_path):
    option = request.config.getoption
    subprocess.run([option("--cmake"), "--install", option("--build"), "--prefix", str(tmp_path)],
                   stdout=subprocess.DEVNULL, check=True)
    installed = {str(path.relative_to(tmp_path)): path.stat().st_mode & 0o777
                 for path in tmp_path.rglob("*") if path.is_file()}
    libraries = pathlib.Path(option("--libdir"))
    program, data = 0o755, 0o644
    pages = ["man5/com.tavimesh.Registry.5", "man5/ledgerd-registry.5", "man8/ledgerd.8"]
    client = {
        "bin/ledgerctl": program,
        "share/bash-completion/completions/ledgerctl": data,
        "share/fish/vendor_completions.d/ledgerctl.fish": data,
        "share/zsh/vendor-completions/_ledgerctl": data,
    }
    if option("--client"):
        pages.append("man1/ledgerctl.1")
    probes = {str(libraries / "ledgerd/ledgerd-tracepoint-probes.so"): data}
    assert installed == {
        **(client if option("--client") else {}),
        **(probes if option("--tracing") else {}),
        **{f"share/man/{page}": data for page in pages if option("--man")},
        "sbin/ledgerd": program,
        "etc/init.d/ledgerd": program,
        "share/dbus-1/interfaces/com.tavimesh.Registry.xml": data,
        "share/dbus-1/system-services/com.tavimesh.Registry.service": data,
        "share/dbus-1/system.d/com.tavimesh.Registry.conf": data,
        "lib/systemd/system/ledgerd.service": data,
        "lib/sysusers.d/ledgerd.conf": data,
        "lib/tmpfiles.d/ledgerd.conf": data,
        "share/doc/ledgerd/LICENSE": data,
    }
