"""What the generator says when it does not serve its input."""

from typing import NamedTuple


class Problem(NamedTuple):
    """One reason to refuse the input, with the place in the file."""

    line: int
    reason: str


class Refusal(Exception):
    """The input is refused; carries every problem that was found, in file order."""

    def __init__(self, problems):
        self.problems = sorted(set(problems))
        super().__init__("; ".join(problem.reason for problem in self.problems))
