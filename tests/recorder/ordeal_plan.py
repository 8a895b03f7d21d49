"""What happens in a round of the ordeal: in which phase of the daemon's work which fault strikes, and when. A seed and the
number of a round decide all of it, so that one round can be repeated alone."""

import dataclasses
import random

PHASES = ("check", "repair", "mount", "scan", "use", "record", "delete", "format", "firewire")
FAULTS = ("yank", "bounce", "kill", "hang", "die")

# Within a deck any phases and faults that follow one another are different ones, and the whole deck has every pair, because
# the two numbers have no common divisor.
PAIRS = len(PHASES) * len(FAULTS)

CONDITIONS = {"repair": ("dirty",), "format": ("clean", "dirty", "damaged", "unformatted")}

MOUNT, UNMOUNT, SYNC = "*-onoatime*?/mnt/*", "*?/mnt/S*", "*-f?/mnt/S*"

# The tools that work in a phase, and what the call that is meant looks like. A phase without any is there when the recorder
# shows that it is.
TOOLS = {
    "check": [("fsck.hfsplus", "*?-q?*"), ("volname.hfsplus", "*/dev/*")],
    "repair": [("fsck.hfsplus", "?/dev/*")],
    "mount": [("mount", MOUNT)],
    "scan": [("clip-probe", "*"), ("mkdir", "*/NEVO/.uploads/*"), ("umount", UNMOUNT)],
    "use": [("df", "*"), ("sync", SYNC)],
    "record": [("df", "*"), ("clip-probe", "*")],
    "delete": [("rm", "*Clip_*")],
    "format": [("parted", "*?rm?*"), ("fdisk.gpt", "*"), ("sfdisk", "*"), ("mkfs.hfsplus", "*")],
    "firewire": [("fwreset.sh", "*"), ("endpoint", "*"), ("cp", "*/etc/endpoint.conf*"), ("pkill", "?endpoint*"),
                 ("pgrep", "?endpoint*")],
}
# Where the fault comes from outside: what it may fall into. "" is the phase itself, as far as the recorder shows it.
MOMENTS = {
    "use": [""], "record": [""], "delete": ["", "rm"], "firewire": ["fwreset.sh", "offered", "taken", "pkill"],
}
# How long a phase usually lasts behind the moment that shows it, in milliseconds, on a machine that is not fast.
LENGTHS = {"check": 300, "repair": 600, "mount": 200, "scan": 400, "use": 1500, "record": 1500, "delete": 600,
           "format": 1500, "firewire": 2500}

# What a tool may fail with.
STATUSES = (1, 2, 8, 32, 127)


@dataclasses.dataclass(frozen=True)
class Plan:
    number: int
    phase: str
    fault: str
    condition: str    # of the card
    slot: str
    tool: str         # "" where the phase is seen without one
    pattern: str
    moment: str       # "" or, of FireWire access, "offered" or "taken"
    orders: str       # what the tool is told to do
    delay: float      # seconds between the moment and a fault from outside
    hold: float       # seconds for which a tool hangs, and for which a card or a pin is away
    bounces: tuple    # seconds: away, back, away, ...
    returned: bool    # the card that was yanked comes back before the recorder has come to rest
    asked: bool       # the operator has the recorder let go of the card before taking it out

    def __str__(self):
        what = [f"{self.number:4} {self.phase:8} {self.fault:6} {self.condition:11} {self.slot}"]
        at = self.tool or self.moment
        if self.fault in ("hang", "die"):
            what.append(f"{self.tool} {self.orders}")
            if self.fault == "hang":
                what.append(f"for {self.hold:.1f} s")
        else:
            what.append(f"{at} +{self.delay * 1000:.0f} ms".strip())
            if self.fault == "bounce":
                what.append("/".join(f"{part * 1000:.0f}" for part in self.bounces))
            elif self.fault == "yank" and self.returned:
                what.append(f"back after {self.hold:.1f} s")
        return " ".join(what)


def draw(seed, number):
    """The plan of a round, the first of which has the number 1."""
    dealt, place = divmod(number - 1, PAIRS)
    deck = random.Random(f"{seed} deck {dealt}")
    phases, faults = deck.sample(PHASES, len(PHASES)), deck.sample(FAULTS, len(FAULTS))
    phase, fault = phases[place % len(PHASES)], faults[place % len(FAULTS)]

    chance = random.Random(f"{seed} round {number}")
    moment = orders = ""
    if fault in ("hang", "die"):
        tool, pattern = chance.choice(TOOLS[phase])
        if fault == "hang":
            orders = chance.choice(("hang", "hang", "cling"))
        else:
            orders = chance.choice(("die", f"midway {chance.uniform(0.005, 0.4):.3f}", f"fail {chance.choice(STATUSES)}"))
    else:
        orders = "pass"
        choice = chance.choice(MOMENTS.get(phase) or [name for name, _ in TOOLS[phase]])
        tool, pattern = next((each for each in TOOLS[phase] if each[0] == choice), ("", ""))
        moment = "" if tool else choice
    length = LENGTHS[phase] / 1000
    return Plan(
        number=number, phase=phase, fault=fault, condition=chance.choice(CONDITIONS.get(phase, ("clean", "dirty"))),
        slot=chance.choice(("S1", "S2")), tool=tool, pattern=pattern, moment=moment, orders=orders,
        delay=chance.choice((0.002, chance.uniform(0, length / 5), chance.uniform(0, length))),
        hold=chance.choice((chance.uniform(0, 0.5), chance.uniform(0, 3))),
        # The daemon looks four times a second.
        bounces=tuple(chance.choice((chance.uniform(0, 0.1), chance.uniform(0.1, 0.7)))
                      for _ in range(2 * chance.choice((1, 1, 2, 3)))),
        returned=chance.random() < 0.5, asked=chance.random() < 0.5)
