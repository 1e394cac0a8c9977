"""Reads what callgrind has written: one part for each operation, named by the request that wrote it out."""

import collections
import re

TRIGGER = "desc: Trigger: Client Request: "

# Templates of libraries are part of the measured program, and so is the benchmark itself.
FOREIGN = re.compile(r"(std|__gnu_cxx|boost|nlohmann|fmt|__cxxabiv1)::")
BENCHMARK = re.compile(r"main|(\(anonymous namespace\)::)?Count\w*\b|workload::|fuzz::|std::_Function_handler")


class Profile:
    """The instructions of one operation: of all in `total`, of each function with all that it calls in `functions`."""

    def __init__(self):
        self.total = 0
        self.functions = collections.Counter()
        self.callees = collections.defaultdict(set)  # all functions by their full names

    def functions_within(self, root):
        """Those of the functions that are called from `root`, directly or not, and `root` itself."""
        found = {name for name in self.callees if without_arguments(name) == root}
        to_visit = list(found)
        while to_visit:
            new = self.callees.get(to_visit.pop(), set()) - found
            found |= new
            to_visit += new
        names = {without_arguments(name) for name in found}
        return {name: cost for name, cost in self.functions.items() if name in names}


def without_arguments(name):
    """The qualified name alone: no argument list, no template arguments, no result type."""
    name = name.replace("(anonymous namespace)::", "").split("[abi:", 1)[0]
    shorter = None
    while shorter != name:
        shorter, name = name, re.sub(r"<[^<>]*>", "", name)
    return name.split("(", 1)[0].rsplit(" ", 1)[-1]


def is_ours(binary, owner, name):
    """Whether the function is this project's: of the measured program, but neither the benchmark's nor a library's."""
    if owner != binary or BENCHMARK.match(name):
        return False
    short = without_arguments(name)
    return bool(re.search(r"[A-Za-z]", short)) and not FOREIGN.match(short) and not short.startswith("_")


def parse(text, binary):
    """The profiles by operation. `text` is callgrind's, written without the compression of names."""
    profiles = {}
    profile = None
    owner = callee_owner = caller = callee = ""
    in_call = False
    for line in text.splitlines():
        if line.startswith(TRIGGER):
            profile = profiles[line[len(TRIGGER):]] = Profile()
        elif line.startswith("part:"):
            profile = None
        elif profile is None:
            continue
        elif line.startswith("totals:"):
            profile.total = int(line.split()[1])
        elif line.startswith("ob="):
            owner = callee_owner = line[3:]
        elif line.startswith("fn="):
            caller, callee_owner = line[3:], owner
        elif line.startswith("cob="):
            callee_owner = line[4:]
        elif line.startswith("cfn="):
            callee = line[4:]
        elif line.startswith("calls="):
            in_call = True
        elif line[:1].isdigit():
            cost = int(line.split()[1])
            if in_call:
                profile.callees[caller].add(callee)
                # What a function spends in itself called again is already in the outer call; so is what it spends in a
                # part that the compiler has made a function of its own, or after a virtual call's adjustment.
                name = without_arguments(callee)
                if name != without_arguments(caller) and is_ours(binary, callee_owner, callee):
                    profile.functions[name] += cost
                in_call, callee_owner = False, owner
    return profiles
