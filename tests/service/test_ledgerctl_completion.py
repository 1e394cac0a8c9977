"""Completion in the real shells: the offers for a command line, with names that a shell would split."""

import os
import pathlib
import pty
import re
import select
import shutil
import subprocess

import pytest

from world.harness import PATIENCE

VERBS = {"get", "set", "exists", "list", "show", "unset", "clear", "flush", "dump", "load", "edit", "diff", "watch",
         "usage", "help"}
REGISTRY = b"""{"network":{"hostname":"p","ip":"1"},"a b":{"c d":"v"},"null":{},"x:y=z":{"k=1":"v","k:2":"v"},
               "it's":{"$k":"v"}}"""

# The cursor is at the end of each line. The offers are as the shell would understand them. These need no daemon.
LINES_WITHOUT_DAEMON = {
    "ledgerctl ": VERBS,
    "ledgerctl -q l": {"list", "load"},
    "ledgerctl help us": {"usage"},
    "ledgerctl load --mi": {"--missing-only"},
    "ledgerctl flush --s": {"--sync"},
    "ledgerctl --": {"--quiet", "--help", "--timeout", "--null", "--json", "--version"},
    "ledgerctl set --f": {"--flush", "--force"},
    "ledgerctl usage --f": {"--fail-above"},
    "ledgerctl load --text --f": {"--force"},
    "ledgerctl watch --ex": {"--exec"},
    "ledgerctl load sett": {"settings.json"},
    "ledgerctl dump -- ": {"settings.json"},
    # Nothing is offered for values, for options after "--", and for options after the section of set.
    "ledgerctl get -- -": set(),
    "ledgerctl set network -": set(),
    "ledgerctl set network ip ": set(),
    "ledgerctl usage --fail-above ": set(),
    # Names.
    "ledgerctl get ": set(),
    "ledgerctl get network ": set(),
}
LINES = {
    "ledgerctl get ": {"network", "a b", "null", "x:y=z", "it's"},
    "ledgerctl --timeout 3 -q show n": {"network", "null"},
    "ledgerctl get network ": {"hostname", "ip"},
    "ledgerctl get --default x NETWORK h": {"hostname"},
    "ledgerctl get a\\ b ": {"c d"},
    "ledgerctl set 'a b' c": {"c d"},
    "ledgerctl set network -x -y h": {"hostname"},
    "ledgerctl set --force -- n": {"network", "null"},
    "ledgerctl get \"it's\" ": {"$k"},
    "ledgerctl watch x:y=z ": {"k=1", "k:2"},
    "ledgerctl unset -r nu": {"null"},
}
# Readline replaces only what follows the last ":" or "=", so bash must offer the rest.
LINES_OF_BASH = {"ledgerctl get x:": {"y=z"}, "ledgerctl get x:y=": {"z"}, "ledgerctl get x:y=z k=": {"1"}}


# In readline, quotes hold a word together, and the characters of COMP_WORDBREAKS are words of their own.
BASH_WORD = r'''(?:\\.|'[^']*'?|"[^"]*"?|[^\s=:'"\\])+|[=:]+'''


# Calls the function that is registered for the command, and prints the offers.
BASH_SCRIPT = r"""
. /usr/share/bash-completion/bash_completion
. "$1"
COMP_LINE=$2
COMP_POINT=${#COMP_LINE}
shift 2
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
COMP_TYPE=9
_ledgerctl ledgerctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD-1]}"
# Each offer is one word for the shell.
for offer in "${COMPREPLY[@]}"; do
  eval "set -- $offer"
  printf '%s\0' "$*"
done
"""


def output_of(environment, *command):
    result = subprocess.run(command, env=environment, cwd=environment["HOME"], stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=PATIENCE, check=True)
    assert result.stderr == b""
    return result.stdout.decode()


def offers_of_bash(environment, directory, line):
    words = re.findall(BASH_WORD, line)
    if line[-1] in " :=":
        words.append("")
    output = output_of(environment, "bash", "--norc", "-c", BASH_SCRIPT, "bash", directory / "ledgerctl.bash", line,
                       *words)
    return set(filter(None, output.split("\0")))


def offers_of_fish(environment, directory, line):
    quoted = line.replace("\\", "\\\\").replace("'", "\\'")
    output = output_of(environment, "fish", "--no-config", "-c",
                       f"source {directory}/ledgerctl.fish; complete -C '{quoted}'")
    # Each line has an offer and its description.
    return {offer.split("\t")[0] for offer in output.splitlines()}


# Completes a line as if it was typed, and prints the arguments of compadd, which makes all offers.
ZSH_SCRIPT = r"""
fpath=($COMPLETION_DIRECTORY $fpath)
autoload -Uz compinit
compinit -u -D
compadd() {
  local -a offered
  builtin compadd -O offered "$@"
  print -rn -- "${(pj:\x01:)offered}"$'\x01' >&$OFFERS
  builtin compadd "$@"
}
zle -C offer list-choices _main_complete
offer-line() {
  BUFFER=$LINE_TO_COMPLETE
  CURSOR=${#BUFFER}
  zle offer
  print -rn -- $'\x02' >&$OFFERS
  exit 0
}
zle -N offer-line
zle-line-init() { zle offer-line }
zle -N zle-line-init
"""


def offers_of_zsh(environment, directory, line):
    """zsh completes only on a terminal."""
    reader, writer = os.pipe()
    master, slave = pty.openpty()
    pathlib.Path(environment["HOME"], ".zshrc").write_text(ZSH_SCRIPT)
    # Without the machine's own settings.
    process = subprocess.Popen(["zsh", "-d", "-i"], env={
        **environment, "ZDOTDIR": environment["HOME"], "COMPLETION_DIRECTORY": str(directory), "LINE_TO_COMPLETE": line,
        "OFFERS": str(writer)}, cwd=environment["HOME"], stdin=slave, stdout=slave, stderr=slave, pass_fds=[writer],
        start_new_session=True)
    os.close(writer)
    os.close(slave)
    data = b""
    while b"\x02" not in data and (chunk := read_some(reader, master)):
        data += chunk
    process.kill()
    process.wait()
    os.close(reader)
    os.close(master)
    return set(filter(None, data.decode().replace("\x02", "").split("\x01")))


def read_some(reader, terminal):
    """Returns the next bytes of the reader. Drops the output on the terminal."""
    while True:
        ready, _, _ = select.select([reader, terminal], [], [], PATIENCE)
        assert ready, "the shell did not answer"
        if reader in ready:
            return os.read(reader, 65536)
        try:
            os.read(terminal, 65536)
        except OSError:
            return os.read(reader, 65536)


@pytest.mark.parametrize("offers_of, lines", [
    pytest.param(offers_of, lines, id=shell, marks=pytest.mark.skipif(not shutil.which(shell), reason=f"no {shell}"))
    for shell, offers_of, lines in (("bash", offers_of_bash, {**LINES, **LINES_OF_BASH}),
                                    ("fish", offers_of_fish, LINES), ("zsh", offers_of_zsh, LINES))])
def test_offers(build, ledgerctl, world, offers_of, lines):
    directory = build.completion
    (ledgerctl.directory / "settings.json").touch()
    path = f"{pathlib.Path(ledgerctl.binary).resolve().parent}:{os.environ['PATH']}"
    environment = {**ledgerctl.environment, "PATH": path, "HOME": str(ledgerctl.directory), "LC_ALL": "C.UTF-8"}
    assert {line: offers_of(environment, directory, line) for line in LINES_WITHOUT_DAEMON} == LINES_WITHOUT_DAEMON
    world.start()
    ledgerctl.output("load", input=REGISTRY)
    assert {line: offers_of(environment, directory, line) for line in lines} == lines
