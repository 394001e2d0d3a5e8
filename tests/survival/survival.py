#!/usr/bin/python3
"""What is left of files whose writer was killed, or whose disk failed: pixel by pixel, by other readers than ours.

survival.py VICTIM FAULTS TOOL [--kills N] [--flush-kills N] [--writes N]

Kills at random times, kills at the N-th write inside a flush, errors at the N-th write, and a series that ends while a
reader holds its file. Prints a line of figures for each; fails at the first frame that is lost or wrong.
"""
import argparse
import os
import random
import signal
import struct
import subprocess
import tempfile
import time

import h5py
import numpy as np

PIXELS = np.arange(65536, dtype=np.uint64)
NOT_CLOSED, INCOMPLETE = 10, 7


def expected(frame):
    """The same as countOf in victim.cpp."""
    return ((frame * 7919 + PIXELS * 31 + (PIXELS >> 5)) % 4000).astype(np.uint32).reshape(256, 256)


class Case:
    """A run of the victim, and what it leaves."""

    def __init__(self, args, folder, name):
        self.args = args
        self.path = os.path.join(folder, name)
        self.count = os.path.join(folder, "count")

    def start(self, frames, interval=2, fault=None, direct=False):
        environment = dict(os.environ, LATIXEL_FAULT_FILE=self.path, LATIXEL_FAULT_COUNT=self.count)
        if fault:
            environment.update(LD_PRELOAD=self.args.faults, LATIXEL_FAULT=fault)
        command = [self.args.victim, self.path, str(frames), str(interval)] + (["direct"] if direct else [])
        return subprocess.Popen(command, env=environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def check(self, *options):
        return subprocess.run([self.args.tool, "check", *options, self.path], capture_output=True).returncode

    def frames(self, **how):
        """The number of frames that count, each of them compared. A plain open unless `how` says else."""
        if self.path.endswith(".tif"):
            pages = list(tiff_pages(self.path))
            for number, page in enumerate(pages):
                assert np.array_equal(page, expected(number)), f"page {number}"
            return len(pages)
        with h5py.File(self.path, "r", **how) as file:
            table = file["entry/instrument/detector/frame_table"]
            data = file["entry/data/data"]
            rows = table[:]
            assert len(data) >= len(rows)
            assert how or len(data) == len(rows) == len(file["entry/data/time"]), "cut to the table"
            for index, row in enumerate(rows):
                assert row["number"] == index and np.array_equal(data[index], expected(index)), f"frame {index}"
                assert row["missing_bytes"] == (17 if index % 10 == 3 else 0)
                assert bool(row["remarks"]) == (index % 10 == 3), row["remarks"]
                times = file["entry/instrument/detector/frame_metadata/RowAcqTimes"][index]
                assert list(times) == [index, 2]
            return len(rows)

    def outcome(self):
        with h5py.File(self.path, "r") as file:
            return file["entry/outcome"][()].decode()

    def survives(self, safe):
        """All that was called safe is there, before and after the repair. Returns the number of frames."""
        if self.check() != NOT_CLOSED:  # killed behind the close
            return self.closed_with(safe)
        found = self.frames(swmr=True) if self.path.endswith(".h5") else None
        assert self.check("--repair") in (0, INCOMPLETE)
        repaired = self.frames()
        assert repaired >= safe and found in (None, repaired), (found, repaired, safe)
        assert self.check() in (0, INCOMPLETE)
        return repaired

    def closed_with(self, safe):
        found = self.frames()
        assert found >= safe and self.check() in (0, INCOMPLETE)
        return found

    def clean(self):
        for entry in os.scandir(os.path.dirname(self.path)):
            if entry.is_file():
                os.unlink(entry.path)


def tiff_pages(path):
    """The pictures of an uncompressed TIFF file, read by its letter."""
    with open(path, "rb") as file:
        data = file.read()
    assert data[:4] == b"II*\0"
    at = struct.unpack_from("<I", data, 4)[0]
    while at:
        count = struct.unpack_from("<H", data, at)[0]
        tags = {}
        for i in range(count):
            tag, kind, number = struct.unpack_from("<HHI", data, at + 2 + 12 * i)
            size = {3: 2, 4: 4}.get(kind, 1)
            where = at + 10 + 12 * i
            if size * number > 4:
                where = struct.unpack_from("<I", data, where)[0]
            tags[tag] = [int.from_bytes(data[where + size * j:where + size * (j + 1)], "little") for j in range(number)]
        yield np.frombuffer(b"".join(data[o:o + s] for o, s in zip(tags[273], tags[279])), "<u4").reshape(256, 256)
        at = struct.unpack_from("<I", data, at + 2 + 12 * count)[0]


def last_safe(text):
    return int(text.split()[-1]) if text.split() else 0


def random_kills(case, count):
    total = 0
    for _ in range(count):
        process = case.start(5000)
        limit = time.time() + 30
        while not os.path.exists(case.path) and time.time() < limit:
            time.sleep(0.01)
        time.sleep(random.uniform(0, 2.2))
        assert case.check("--repair") == 6, "repair refuses a file whose writer lives"
        process.send_signal(signal.SIGKILL)
        total += case.survives(last_safe(process.communicate()[0]))
        case.clean()
    print(f"{case.path[-3:]}: {count} kills at random times survived, {total} frames compared")


def sample(case, frames, fault, count):
    """Numbers of writes to hit, spread over all of an undisturbed run; every one where there are fewer."""
    process = case.start(frames, fault=f"{fault}:1000000000", direct=True)
    assert process.wait() == 0, process.communicate()
    writes = int(open(case.count).read())
    case.clean()
    count = min(count, writes)
    return sorted({1 + round(i * (writes - 1) / max(1, count - 1)) for i in range(count)})


def kills_at_writes(case, count, fault, frames):
    numbers = sample(case, frames, fault, count)
    total = 0
    for number in numbers:
        process = case.start(frames, fault=f"{fault}:{number}", direct=True)
        told, words = process.communicate()
        assert process.returncode == -signal.SIGKILL, f"write {number}: {process.returncode} {words}"
        if os.path.exists(case.path):
            total += case.survives(last_safe(told))
        else:
            assert last_safe(told) == 0
        case.clean()
    print(f"{case.path[-3:]}: {len(numbers)} kills survived ({fault}), at writes {numbers[0]} to {numbers[-1]}, "
          f"{total} frames compared")


def errors(case, count):
    total = runs = 0
    for what in ("enospc", "edquot", "eio", "estale"):
        numbers = sample(case, 12, what, count)
        for number in numbers:
            process = case.start(12, fault=f"{what}:{number}", direct=True)
            told, words = process.communicate(timeout=60)
            assert process.returncode == 6 and words.count("\n") == 1, f"{what}:{number}: {process.returncode} {words}"
            if os.path.exists(case.path):
                if case.check() == NOT_CLOSED:
                    assert what in ("eio", "estale"), f"{what}:{number}: not closed in spite of the reserve"
                    total += case.survives(last_safe(told))
                else:
                    total += case.frames()
            else:
                assert last_safe(told) == 0
            assert [name for name in os.listdir(os.path.dirname(case.path)) if ".part" in name] == []
            runs += 1
            case.clean()
    print(f"{case.path[-3:]}: {runs} errors at writes {numbers[0]} to {numbers[-1]} survived, {total} frames compared")


def held_by_reader(case):
    process = case.start(300, interval=5)
    while not os.path.exists(case.path):
        time.sleep(0.01)
    with h5py.File(case.path, "r", swmr=True) as file:
        table = file["entry/instrument/detector/frame_table"]
        seen = []
        while process.poll() is None:
            table.refresh()
            seen.append(len(table))
            time.sleep(0.1)
        assert process.returncode == 0, process.communicate()
    assert 0 < seen[len(seen) // 2] < 300 and case.frames() == 300 and case.outcome() == "finished", seen
    assert case.check() == INCOMPLETE, "frames with missing bytes"
    case.clean()
    print("h5: a reader followed a series to its end")


def stuck_disk(case):
    """The tool itself: a write that takes a minute is told, and a stop ends all the same."""
    environment = dict(os.environ, HOME=os.path.dirname(case.path), LD_PRELOAD=case.args.faults,
                       LATIXEL_FAULT_FILE=case.path, LATIXEL_FAULT="block:280")  # behind the first frame
    command = [case.args.tool, "--simulate", "acquire", "-n", "10000", "-t", "0.02", "-o", case.path]
    process = subprocess.Popen(command, env=environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    for line in process.stderr:
        if "has taken nothing for 5 s" in line:
            break
    begin = time.time()
    process.send_signal(signal.SIGINT)
    words = process.communicate(timeout=30)[1]
    assert process.returncode == 6 and time.time() - begin < 10, (process.returncode, time.time() - begin, words)
    assert "are safe in" in words and case.check() == NOT_CLOSED and case.check("--repair") == INCOMPLETE, words
    print("h5: a disk that blocks was told, and the stop came through")


def main():
    parser = argparse.ArgumentParser()
    for name in ("victim", "faults", "tool"):
        parser.add_argument(name)
    for name, default in (("--kills", 5), ("--flush-kills", 5), ("--writes", 8)):
        parser.add_argument(name, type=int, default=default)
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        hdf5, tiff = Case(args, folder, "run.h5"), Case(args, folder, "run.tif")
        stuck_disk(Case(args, tempfile.mkdtemp(dir=folder), "run.h5"))
        held_by_reader(hdf5)
        kills_at_writes(hdf5, args.flush_kills, "killinflush", 60)
        kills_at_writes(tiff, args.flush_kills, "kill", 12)
        errors(hdf5, args.writes)
        errors(tiff, args.writes)
        random_kills(hdf5, args.kills)
        random_kills(tiff, args.kills // 2)


main()
