"""What `swanctl --list-sas --raw` prints, and the state of a connection that follows from it: the rules
of docs/ipsec.md once more, by another way than the daemon's."""

import re

UNKNOWN, DOWN, CONNECTING, IKE_UP, UP, REKEYING, CLOSING = range(7)  # as the column has them
BEST_FIRST = (UP, REKEYING, IKE_UP, CONNECTING, CLOSING, DOWN, UNKNOWN)
TOKEN = re.compile(r"\s*(\{|\}|\[|\]|[^\s={}\[\]]+=?)")


def ike_sas(text):
    """[(connection, SA)]: the SAs in order; each a dictionary of texts, lists and dictionaries."""
    sas = []
    for line in text.splitlines():
        if line.startswith("list-sa event "):
            tokens = TOKEN.findall(line.removeprefix("list-sa event "))
            sas += _section(tokens, 1)[0].items()
    return sas


def state(text, connection, child):
    """The state of an interface that a child of the connection is for."""
    states = [DOWN] + [_state_of(sa, child) for name, sa in ike_sas(text) if name == connection]
    return min(states, key=BEST_FIRST.index)


def _state_of(sa, child):
    ike = sa["state"]
    children = {one["state"] for one in sa.get("child-sas", {}).values() if one["name"] == child}
    if children & {"INSTALLED", "UPDATING", "REKEYING", "REKEYED"} and ike in (
            "ESTABLISHED", "REKEYING", "REKEYED"):
        return UP
    if ike == "REKEYING":
        return REKEYING
    if ike in ("DELETING", "DESTROYING") or children == {"DELETING"}:
        return CLOSING
    if ike in ("ESTABLISHED", "PASSIVE"):
        return IKE_UP
    return CONNECTING if ike in ("CREATED", "CONNECTING") else DOWN if ike == "REKEYED" else UNKNOWN


def _section(tokens, at):
    """What stands from there on to the closing brace, and where it goes on."""
    section = {}
    while tokens[at] != "}":
        name, at = tokens[at], at + 1
        if tokens[at] == "{":
            section[name], at = _section(tokens, at + 1)
        elif tokens[at] == "[":
            end = tokens.index("]", at)
            section[name.removesuffix("=")] = tokens[at + 1:end]
            at = end + 1
        else:
            section[name.removesuffix("=")], at = tokens[at], at + 1
    return section, at + 1
