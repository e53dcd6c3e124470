"""The table: a row for each claim, and what was missed."""


class Report:
    def __init__(self):
        self.missed = []

    def heading(self, text):
        print(f"{text:44} {'floor':>9} {'library':>9} {'ratio':>6}", flush=True)

    def row(self, name, floor, library, bound=None, ratio=None, others=()):
        """One comparison. `others` are further ratios to the floor by name, None if not built in."""
        ratio = library / floor if ratio is None else ratio
        text = f"{name:44} {floor:9.0f} {library:9.0f} {ratio:6.2f}"
        text += f"  (bound {bound})" if bound else "  (no bound)"
        for other, value in others:
            text += f"  {other} " + ("not built in" if value is None else f"{value:.2f}")
        self._say(name, text, bound is not None and ratio > bound)

    def limit(self, name, value, unit, bound):
        self._say(name, f"{name:54} {value:9.4g} {unit}  (bound {bound})", value > bound)

    def plain(self, text):
        print(text, flush=True)

    def failed(self, name, why):
        self._say(name, f"{name:44} FAILED: {why}", False)
        self.missed.append(name)

    def _say(self, name, text, missed):
        print(text + ("  MISSED" if missed else ""), flush=True)
        if missed:
            self.missed.append(name)
