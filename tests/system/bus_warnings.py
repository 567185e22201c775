"""The words in which a node tells of its conflicts."""


def in_use(address, attempt, kind="address"):
    return (f"[bus] WARNING: {kind} {address} already in use on this bus (probe {attempt}/8) - retrying with an "
            "alternate address")


def claimed_at_same_instant(address, attempt, kind="address"):
    return (f"[bus] WARNING: {kind} {address} was claimed by another device at the same instant, right after "
            f"announcing (probe {attempt}/8) - retrying with an alternate address")


def giving_up(address):
    return (f"[bus] WARNING: giving up after 8 probe attempts - committing to address {address} even though it still "
            "appears to be in use; this Hub and another device may now both answer to the same address")


def renamed(name, digit):
    return f"[bus] WARNING: name '{name}' already in use on this bus - renamed to '{name}{digit}'"


def no_name_left(name):
    return (f"[bus] WARNING: name '{name}' already in use on this bus, and every auto-suffix up to '{name}9' is ALSO "
            "taken - keeping the colliding name; two devices will now answer to the same name")


def version_mismatch(version):
    return (f"[bus] PROTOCOL_VERSION mismatch: received frame with version={version}, this side runs version=2 - "
            "frame dropped (silently, before this warning: see version_mismatch_drops() for the running total). "
            "Usually means the two sides were built against different protolib versions.")
