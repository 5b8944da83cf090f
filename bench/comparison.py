"""What was measured, round by round, and the figures made of it."""

import csv
import os
import statistics

import plot
import targets

FIELDS = ["per_second", "p50_us", "p99_us", "longest_us", "cpu_us", "all_cpu_us", "errors"]
TABLES = [("per_second", "round trips per second"),
          ("p50_us", "latency, median, in microseconds"),
          ("p99_us", "latency, 99 %, in microseconds"),
          ("cpu_us", "processor time of the relay per round trip, in microseconds"),
          ("all_cpu_us", "processor time of load, relay and node per round trip, in microseconds")]


class Rows:
    """One row for each run of the load. A case is (place, size, clients)."""

    def __init__(self):
        self.rows = []

    def add(self, number, target, case, result):
        place, size, clients = case
        row = {"round": number, "place": place, "target": target, "size": size,
               "clients": clients}
        for name in FIELDS:
            row[name] = result[name] if result else 0
        row["stood_still"] = not result or result["stood_still"]
        self.rows.append(row)

    def of(self, target, case):
        return [row for row in self.rows if row["target"] == target
                and (row["place"], row["size"], row["clients"]) == case]

    def values(self, target, case, field):
        """The figures of all rounds, by round; runs that measured nothing are left out."""
        return {row["round"]: row[field] for row in self.of(target, case)
                if row["per_second"] > 0}

    def median(self, target, case, field="per_second"):
        values = self.values(target, case, field)
        return statistics.median(values.values()) if values else None

    def ratio(self, target, other, case, field="per_second", other_case=None):
        """The median over the rounds of the ratio within a round; a run that measured nothing
        counts as nothing. None when the other was not measured."""
        mine = self.values(target, case, field)
        theirs = self.values(other, other_case or case, field)
        ratios = [mine.get(number, 0) / value for number, value in theirs.items() if value]
        return statistics.median(ratios) if ratios else None

    def still(self, target, case):
        return sum(row["stood_still"] for row in self.of(target, case))

    def best_peer(self, case, field, best):
        found = [(self.median(kind.name, case, field), kind.name) for kind in targets.PEERS
                 if self.median(kind.name, case, field)]
        return best(found)[1] if found else None

    def names(self, place):
        return list(dict.fromkeys(sorted(
            (row["target"] for row in self.rows if row["place"] == place), key=order)))

    def numbers(self, place, field):
        return sorted({row[field] for row in self.rows if row["place"] == place})

    def places(self):
        return list(dict.fromkeys(row["place"] for row in self.rows))

    def table(self, place, field):
        """Lines: a column for each target, a line for each case."""
        names = self.names(place)
        yield "   bytes clients" + "".join(f"{name:>18}" for name in names)
        for size in self.numbers(place, "size"):
            for clients in self.numbers(place, "clients"):
                case = (place, size, clients)
                cells = (self.cell(name, case, field) for name in names)
                yield f"  {size:6} {clients:7}" + "".join(f"{cell:>18}" for cell in cells)

    def markdown(self, place, field):
        names = self.names(place)
        yield "| bytes | clients | " + " | ".join(names) + " |"
        yield "|---" * (2 + len(names)) + "|"
        for size in self.numbers(place, "size"):
            for clients in self.numbers(place, "clients"):
                cells = (self.cell(name, (place, size, clients), field) for name in names)
                yield f"| {size} | {clients} | " + " | ".join(cells) + " |"

    def cell(self, name, case, field):
        value = self.median(name, case, field)
        text = "-" if not value else f"{value:.1f}" if value < 100 else f"{value:,.0f}"
        over = self.ratio("agent", name, case) if value and name != "agent" else None
        if field == "per_second" and over:
            text += f" ({over:.2f})"
        still = self.still(name, case)
        return text + (f" !{still}" if still else "")

    def write(self, folder):
        os.makedirs(folder, exist_ok=True)
        with open(os.path.join(folder, "comparison.csv"), "w", newline="") as file:
            writer = csv.DictWriter(file, fieldnames=list(self.rows[0]))
            writer.writeheader()
            writer.writerows(self.rows)
        with open(os.path.join(folder, "tables.md"), "w") as file:
            for place in self.places():
                for field, title in TABLES:
                    lines = "\n".join(self.markdown(place, field))
                    file.write(f"{title}, {place}\n\n{lines}\n\n")
        for place in self.places():
            for size in self.numbers(place, "size"):
                self.draw(folder, place, size, "per_second", "Round trips per second")
                self.draw(folder, place, size, "p99_us", "Latency, 99 %, microseconds")

    def draw(self, folder, place, size, field, title):
        curves = {}
        for name in self.names(place):
            points = [(clients, self.median(name, (place, size, clients), field))
                      for clients in self.numbers(place, "clients")]
            curves[name] = [(clients, value) for clients, value in points if value]
        kind = "throughput" if field == "per_second" else "latency"
        path = os.path.join(folder, f"{kind}-{place.replace(' ', '')}-{size}.svg")
        plot.write(path, f"{title}, {place}, {size}-byte messages", "clients", curves)


def order(name):
    first = ["agent", "before", "agent over TCP", "free hand", "yardstick", "direct"]
    return first.index(name) if name in first else len(first)
