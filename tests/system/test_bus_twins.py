"""Twenty nodes of one address and one name that start in the same instant."""
import contextlib

import pytest

from bus_program import BusProgram
from bus_warnings import claimed_at_same_instant, in_use, no_name_left, renamed
from programs import wait_until

COUNT, ADDRESS, NAME = 20, 200, "twin"


@pytest.fixture
def twins():
    """Each of them listens for the word to join."""
    with contextlib.ExitStack() as stack:
        yield [stack.enter_context(BusProgram(ADDRESS, NAME, debounce_ms=1)) for _ in range(COUNT)]


def join_together(twins):
    for twin in twins:
        twin.tell("join")
    return [(int(address), name) for address, name in (twin.answer().split() for twin in twins)]


def check_warnings(warnings, address, name):
    """Each attempt but the last one has its warning, and the name at most one; the others are in order,
    each in its exact words."""
    renames = [text for text in warnings if text.startswith("[bus] WARNING: name ")]
    assert renames == ([] if name == NAME else [renamed(NAME, name.removeprefix(NAME))]) or \
        (name == NAME and renames == [no_name_left(NAME)])
    tried = []
    for text in (text for text in warnings if text not in renames):
        tried.append(int(text.split(" address ")[1].split()[0]))
        assert text in (in_use(tried[-1], len(tried)), claimed_at_same_instant(tried[-1], len(tried)))
    assert len(tried) < 8 and len(set(tried)) == len(tried)
    assert (tried + [address])[0] == ADDRESS and address not in tried


def test_each_ends_with_an_address_of_its_own_and_all_know_each_other(twins):
    claimed = join_together(twins)
    addresses = [address for address, _ in claimed]
    assert len(set(addresses)) == COUNT, addresses
    assert all(1 <= address <= 65533 for address in addresses)
    for twin, (address, name) in zip(twins, claimed):
        check_warnings(twin.warnings(), address, name)
        assert name in [NAME, *(f"{NAME}{digit}" for digit in range(2, 10))]
    for twin in twins:
        def knows_all(twin=twin):
            twin.do("discover")
            return set(addresses) <= set(twin.devices())
        wait_until(knows_all, "it knows all the others")
        assert {address: name for address, name in twin.devices().items() if address in addresses} == dict(claimed)


def test_who_comes_later_finds_the_first_free_name_and_its_address_if_that_is_free(twins):
    claimed = dict(join_together(twins))
    with BusProgram(ADDRESS, NAME, debounce_ms=1) as late:
        address, name = late.join()
        assert address not in claimed and (address == ADDRESS) == (ADDRESS not in claimed)
        taken = set(claimed.values())
        free = [NAME + digit for digit in ["", *"23456789"] if NAME + digit not in taken]
        assert name == (free or [NAME])[0]
        check_warnings(late.warnings(), address, name)


def test_one_after_the_other_they_take_the_names_in_turn(twins):
    names = []
    for twin in twins[:11]:
        address, name = twin.join()
        check_warnings(twin.warnings(), address, name)
        names.append(name)
    assert names == [NAME, *(f"{NAME}{digit}" for digit in range(2, 10)), NAME, NAME]
