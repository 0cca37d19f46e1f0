"""What may be seen of tables that change: when each instance was there, with which value. A change takes
effect at some moment between its request and its confirmation; in between both states may be seen."""

import threading

FOREVER = float("inf")
KEPT = 120  # seconds: no walk takes longer
MANY = 64  # entries of an instance, before the old ones go


class Wrong(Exception):
    """A walk showed what it may not, or did not show what it must."""


class _Instance:
    def __init__(self):
        self.values = []  # [value, seen from, seen until]
        self.lives = []  # [there for certain from, until]


class History:
    """Of one agent. `late` is how many seconds after its confirmation a change may still take effect."""

    def __init__(self, late=0.0):
        self.late = late
        self.instances = {}
        self.lock = threading.Lock()

    def change(self, before, after, make, now):
        """Makes a change: calls make() in between. Both are {instance: allowed values}, of the instances
        that the change may concern. An instance with several allowed values may be any of them, and
        may be missing."""
        sent = now()
        with self.lock:
            for name in before.keys() - after.keys():
                self._end_life(name, sent)
            for name, values in after.items():
                instance = self.instances.setdefault(name, _Instance())
                known = {entry[0] for entry in instance.values if entry[2] == FOREVER}
                instance.values += [[value, sent, FOREVER] for value in values - known]
        make()
        confirmed = now() + self.late
        with self.lock:
            for name in before.keys() | after.keys():
                self._confirm(name, after.get(name, set()), confirmed)

    def _confirm(self, name, values, confirmed):
        instance = self.instances[name]
        for entry in instance.values:
            if entry[2] == FOREVER and entry[0] not in values:
                entry[2] = confirmed
        if len(values) != 1:
            self._end_life(name, confirmed)
        elif not instance.lives or instance.lives[-1][1] != FOREVER:
            instance.lives.append([confirmed, FOREVER])
        if len(instance.values) > MANY:
            instance.values = [entry for entry in instance.values if entry[2] > confirmed - KEPT]
            instance.lives = [life for life in instance.lives if life[1] > confirmed - KEPT]

    def _end_life(self, name, moment):
        instance = self.instances.get(name)
        if instance and instance.lives and instance.lives[-1][1] == FOREVER:
            instance.lives[-1][1] = moment

    def check(self, root, begin, end, cells):
        """Raises Wrong. `cells` are (instance, value), in the order in which they were seen."""
        with self.lock:
            seen = set()
            last = ()
            for name, value in cells:
                last = self._check_order(root, last, name)
                seen.add(name)
                self._check_value(name, value, begin, end)
            self._check_missing(root, begin, end, seen)

    _numbers = {}

    def _check_order(self, root, last, name):
        parts = self._numbers.get(name)
        if parts is None:
            parts = self._numbers[name] = tuple(map(int, name.split(".")))
        if parts <= last:
            raise Wrong(f"{name} comes after {'.'.join(map(str, last))}")
        if not name.startswith(root + "."):
            raise Wrong(f"{name} is not below {root}")
        return parts

    def _check_value(self, name, value, begin, end):
        instance = self.instances.get(name)
        entries = instance.values if instance else ()
        if not any(one == value and since <= end and until >= begin
                   for one, since, until in entries):
            raise Wrong(f"{name} = {value} was at no moment of the walk; known: {entries[-4:]}, "
                        f"walk from {begin} to {end}")

    def _check_missing(self, root, begin, end, seen):
        for name, instance in self.instances.items():
            if name in seen or not name.startswith(root):
                continue
            if any(since <= begin and until >= end for since, until in instance.lives):
                raise Wrong(f"{name} is missing, and was there all the while")
