"""Reads the output of callgrind. It has one part for each operation, with the name that the benchmark gave it."""

import collections
import re

TRIGGER = "desc: Trigger: Client Request: "

# The measured program also contains templates of libraries, and the benchmark itself.
FOREIGN = re.compile(r"(std|__gnu_cxx|boost|nlohmann|fmt|__cxxabiv1)::")
BENCHMARK = re.compile(r"main|(\(anonymous namespace\)::)?Count\w*\b|workload::|fuzz::|std::_Function_handler")


class Profile:
    """The instructions of one operation: all of them in `total`; in `functions` those of each function, including all
    functions that it calls."""

    def __init__(self):
        self.total = 0
        self.functions = collections.Counter()
        self.callees = collections.defaultdict(set)  # {function: its callees}, all by their full names

    def functions_within(self, root):
        """Returns `root` and those of the functions that it calls, directly or not."""
        found = {name for name in self.callees if without_arguments(name) == root}
        to_visit = list(found)
        while to_visit:
            new = self.callees.get(to_visit.pop(), set()) - found
            found |= new
            to_visit += new
        names = {without_arguments(name) for name in found}
        return {name: cost for name, cost in self.functions.items() if name in names}


def without_arguments(name):
    """Returns only the qualified name: no argument list, no template arguments, no result type."""
    name = name.replace("(anonymous namespace)::", "").split("[abi:", 1)[0]
    shorter = None
    while shorter != name:
        shorter, name = name, re.sub(r"<[^<>]*>", "", name)
    return name.split("(", 1)[0].rsplit(" ", 1)[-1]


def is_ours(binary, owner, name):
    """Returns whether the function is this project's: in the measured program, but not of the benchmark or of a
    library."""
    if owner != binary or BENCHMARK.match(name):
        return False
    short = without_arguments(name)
    return bool(re.search(r"[A-Za-z]", short)) and not FOREIGN.match(short) and not short.startswith("_")


def parse(text, binary):
    """Returns the profiles by operation. `text` is the output of callgrind without compression of names."""
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
                # A recursive call is already counted in the outer call. So is a call of a part that the compiler has
                # split off, and the call of the function itself after the adjustment of a virtual call.
                name = without_arguments(callee)
                if name != without_arguments(caller) and is_ours(binary, callee_owner, callee):
                    profile.functions[name] += cost
                in_call, callee_owner = False, owner
    return profiles
