# SPDX-License-Identifier: MIT
"""vkahost is killed at random points of its life.

The next one takes over the port within a second and does its whole work; nothing of the killed one
is left. Each life has a program of its own, so that a late hand of the killed one's build in the
next one's would show.
"""
import collections
import itertools
import random
import time

import pytest

import processes
from clients import free_port, record_stream
from lives import LAST, PHASES, Life, pack_life
from processes import wait_until

BINDING = 10 * processes.SLOWNESS  # seconds from the kill until the port is taken over
LEAVING = 10 * processes.SLOWNESS  # until nothing of the killed one runs: a compiler may finish
TALKING = 0.05


@pytest.fixture
def next_life(life, tmp_path):
    """Prepares one life after the other on one port: (what starts vkahost, what leads it)."""
    port = free_port()
    numbers = itertools.count(1)

    def prepare():
        number = next(numbers)
        marker = tmp_path / ("marker%d" % number)
        archive = pack_life(tmp_path, number)
        return (lambda: life(archive, "-p", port, "-b8M"),
                lambda host: Life(host, number, port, marker))

    return prepare


def measure(next_life):
    """How long each phase takes."""
    taken = {}
    for last in LAST:
        start, lead = next_life()
        with start() as vkahost:
            life = lead(vkahost)
            begun = life.lead_to(last)
            while not life.ended():
                life.stay(0.001)
            ended = time.monotonic()
            times = [vkahost.started, *list(begun.values())[1:], ended]
            taken.update((phase, after - before) for phase, before, after in zip(
                begun, times, times[1:]))
            life.client.close()
            vkahost.wait()
    taken["connected"] = TALKING
    return taken


def kill_in(life, phase, seconds):
    """Kills vkahost so long after that phase began; returns when."""
    life.lead_to(phase)
    life.stay(seconds)
    life.host.process.kill()
    killed = time.monotonic()
    life.host.process.wait()
    return killed


def work(life):
    """A whole life, to the program's own end."""
    life.greet()
    assert life.client.ask("say words") == "words"
    life.client.command("flood 200000")
    life.client.command("exit 3")
    assert life.client.receive_all() == record_stream(200000)
    life.client.close()
    assert life.host.wait() == 3


def follow(start, lead, killed, since):
    """The next life. Returns how often the start failed, and times of taking over and leaving."""
    for failures in itertools.count():
        with start() as vkahost:
            bound = vkahost.out.search(r"^\[INFO\] VKAClient::VKAClient\(\)", BINDING)
            binding = time.monotonic() - since
            assert binding <= BINDING, "the port was not taken over within %s s" % BINDING
            if not bound:
                assert vkahost.wait() == 125 and "Address already in use" in vkahost.errors()
                continue
            wait_until(lambda: not processes.with_environment(killed.mark),
                       "nothing of the killed one is left", LEAVING)
            leaving = time.monotonic() - since
            work(lead(vkahost))
            return failures, binding, leaving


def test_restart(next_life, choose):
    count = choose(len(PHASES), 200)
    required = choose([], PHASES)
    seed = random.randrange(2**32)
    print("restart: seed %d" % seed)
    chance = random.Random(seed)
    begin = time.monotonic()
    taken = measure(next_life)
    print("restart: a life takes", ", ".join("%s %.0f ms" % (phase, seconds * 1000)
                                             for phase, seconds in taken.items()))
    hit = collections.Counter()
    results = []
    missed = []
    for number in itertools.count():
        if number >= count:  # some phases are over before their beginning is seen
            missed = [phase for phase in required if hit[phase] == 0]
            if not missed or number == 2 * count:
                break
        phase = chance.choice(missed) if missed else PHASES[number % len(PHASES)]
        start, lead = next_life()
        following = next_life()
        with start() as vkahost:
            life = lead(vkahost)
            killed = kill_in(life, phase, chance.uniform(0, taken[phase]))
            results.append(follow(*following, vkahost, killed))
            hit[life.phase_of_death()] += 1
    failures, bindings, leavings = zip(*results)
    counts = ", ".join("%s %d" % (phase, hit[phase]) for phase in [*PHASES, "ended"])
    print("restart: killed %d times in %.0f s: %s" % (
        len(results), time.monotonic() - begin, counts))
    print("restart: all followed by a whole life; port taken over after %.0f ms at most (%d starts"
          " failed before); nothing of the killed one left after %.0f ms at most" % (
              max(bindings) * 1000, sum(failures), max(leavings) * 1000))
    assert not missed, "never hit: %s" % missed
