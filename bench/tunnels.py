"""The tunnels of every benchmark as a document for `--source json:FILE`; Tunnels.h has the rule."""

import ipaddress
import json

FIRST_LOCAL = int(ipaddress.IPv4Address("198.18.0.1"))
FIRST_REMOTE = int(ipaddress.IPv4Address("10.0.0.0"))
TUNNELS_OF_A_LOCAL = 512
FIRST_INTF_ID = 50331648
PROFILE = "branches"


def status(if_index):
    return {"srcAddr": str(ipaddress.IPv4Address(FIRST_LOCAL
                                                 + (if_index - 1) // TUNNELS_OF_A_LOCAL)),
            "dstAddr": str(ipaddress.IPv4Address(FIRST_REMOTE + if_index)),
            "mode": "gre", "hopLimit": 64, "tos": 48, "ipsec": True}


def document(rows):
    """`rows` tunnels, each with a row in all three tables."""
    tunnels = {str(FIRST_INTF_ID + if_index): if_index for if_index in range(2, 2 * rows + 1, 2)}
    profile = {"appliedIntfId": {intf_id: {"connState": "up"} for intf_id in tunnels}}
    return {"ifMib": {"ifIndexByIntfId": tunnels},
            "tunnelIntfStatusDir": {"intfStatus": {intf_id: status(if_index)
                                                   for intf_id, if_index in tunnels.items()}},
            "ikeStatus": {"ipsecTunnelInfo": {intf_id: {"profileName": PROFILE}
                                              for intf_id in tunnels},
                          "appliedProfiles": {PROFILE: profile}}}


def write(path, rows):
    with open(path, "w", encoding="utf-8") as file:
        json.dump(document(rows), file)
