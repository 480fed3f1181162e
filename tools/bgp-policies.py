#!/usr/bin/python3
"""Writes N random SR policies as bgp-inject commands, for labs and throughput runs.

    bgp-policies.py N [--seed S] [--change K] [--withdraw K]

One IPv6 endpoint in four; 1 to 16 segment lists of 1 to 4 labels, weights 1 to 10; two policies
in three carry a binding SID. --change and --withdraw then add K changed policies and K withdrawals
of earlier ones. The same seed writes the same commands.
"""
import argparse
import random


def endpoint(i):
    if i % 4 == 3:
        return "2001:db8::%x:%x" % (i >> 16, i & 0xffff)
    return "10.%d.%d.%d" % ((i >> 16) & 0xff, (i >> 8) & 0xff, i & 0xff)


def policy(rng, i):
    words = ["add", endpoint(i), "color", str(1 + i % 100), "distinguisher", str(i)]
    words += ["preference", str(rng.randint(1, 1000))]
    if rng.random() < 2 / 3:
        words += ["bsid", str(900000 + i % 100000)]
    for _ in range(rng.randint(1, 16)):
        words += ["segment-list", "weight", str(rng.randint(1, 10)), "labels"]
        words += [str(rng.randint(16000, 24000)) for _ in range(rng.randint(1, 4))]
    return " ".join(words)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("count", type=int)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--change", type=int, default=0)
    ap.add_argument("--withdraw", type=int, default=0)
    a = ap.parse_args()
    rng = random.Random(a.seed)
    for i in range(a.count):
        print(policy(rng, i))
    for i in rng.sample(range(a.count), min(a.change, a.count)):
        print(policy(rng, i))
    for i in rng.sample(range(a.count), min(a.withdraw, a.count)):
        print("withdraw %s color %d distinguisher %d" % (endpoint(i), 1 + i % 100, i))


if __name__ == "__main__":
    main()
