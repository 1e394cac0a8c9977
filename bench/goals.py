"""The limits for the cost of the daemon. A goal limits one figure, or the ratio of two figures of the same round."""

import dataclasses
import statistics


@dataclasses.dataclass(frozen=True)
class Goal:
    name: str
    limit: float
    figure: str
    baseline: str = ""  # empty: the figure itself is limited


GOALS = (
    Goal("`Write` at 99 %, CPU, to the echo of its arguments", 1.40, "Write 99 cpu", "echo of Write cpu"),
    Goal("`Write` at 99 %, p50, to the same echo", 1.18, "Write 99 p50", "echo of Write p50"),
    Goal("`Write` at 99 %, CPU, to `Write` at 25 %", 1.10, "Write 99 cpu", "Write 25 cpu"),
    Goal("`Write` at 99 %, CPU, to xfconfd's `SetProperty`", 0.20, "Write 99 cpu", "xfconfd SetProperty cpu"),
    Goal("`Read`, CPU, to the echo of its arguments", 1.18, "Read cpu", "echo of Read cpu"),
    Goal("`Read`, p50, to the same echo", 1.10, "Read p50", "echo of Read p50"),
    Goal("`ReadAllJson` at 99 %, CPU, to an echo that answers with a text of that length", 1.6,
         "ReadAllJson cpu", "echo of a long text cpu"),
    Goal("start in the background at 99 %, to a minimal program", 1.3, "start ledgerd", "start minimal"),
    Goal("private memory of the idle daemon at 99 %, to a minimal program", 1.5, "memory ledgerd", "memory minimal"),
    Goal("stripped program for 32-bit ARM, KiB", 200, "size armhf"),
)

MET = "met"
WITHIN_SPREAD = "missed within the spread"
MISSED = "MISSED"
NOT_MEASURED = "not measured"


@dataclasses.dataclass(frozen=True)
class Outcome:
    goal: Goal
    values: tuple  # one for each round; empty: not measured

    @property
    def median(self):
        return statistics.median(self.values)

    @property
    def spread(self):
        """Returns the width of the middle half of the rounds. One disturbed round does not change it."""
        if len(self.values) < 2:
            return 0.0
        low, _, high = statistics.quantiles(self.values, method="inclusive")
        return high - low

    @property
    def verdict(self):
        if not self.values:
            return NOT_MEASURED
        if self.median <= self.goal.limit:
            return MET
        return WITHIN_SPREAD if self.median - self.goal.limit <= self.spread else MISSED


def outcomes(figures):
    """Returns the outcome of every goal. `figures` is {name: [the value of each round]}."""
    def values(goal):
        measured = figures.get(goal.figure, ())
        if not goal.baseline:
            return tuple(measured)
        return tuple(value / base for value, base in zip(measured, figures.get(goal.baseline, ())))

    return [Outcome(goal, values(goal)) for goal in GOALS]
