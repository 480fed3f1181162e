#!/usr/bin/python3
"""The bgp input records a router should hold after a controller sent the given bgp-inject
commands, written from the rules the adapter follows, independently of its decoder:

    expected-records.py ORIGINATOR_AS ORIGINATOR_ID < COMMANDS > RECORDS

One `input bgp ...` line per policy still advertised, sorted. The preference is 100 when not
given; an SRv6 binding SID gives no binding SID; a list holding an SRv6 segment is left out; past
16 lists the rest are left out; a list's weight is 1 when not given.
"""
import ipaddress
import sys


def record(words, originator):
    endpoint = str(ipaddress.ip_address(words[1]))
    key = (endpoint, words[3], words[5])
    preference, bsid, lists = "100", None, []
    i = 6
    while i < len(words):
        w = words[i]
        if w == "preference":
            preference, i = words[i + 1], i + 2
        elif w == "bsid":
            bsid, i = words[i + 1], i + 2
        elif w == "srv6-bsid":
            i += 2
        elif w == "segment-list":
            weight, labels, srv6, i = "1", [], False, i + 1
            mode = None
            while i < len(words) and words[i] != "segment-list":
                if words[i] == "weight":
                    weight, i = words[i + 1], i + 2
                elif words[i] in ("labels", "srv6"):
                    mode, i = words[i], i + 1
                else:
                    if mode == "srv6":
                        srv6 = True
                    else:
                        labels.append(words[i])
                    i += 1
            if not srv6:
                lists.append((weight, labels))
        else:
            raise SystemExit("expected-records: unknown word %r" % w)
    line = "input bgp %s color %s discriminator %s originator %s preference %s" % (
        endpoint, words[3], words[5], originator, preference)
    if bsid is not None:
        line += " bsid " + bsid
    for weight, labels in lists[:16]:
        line += " segment-list weight %s labels" % weight + "".join(" " + l for l in labels)
    return key, line


def main():
    originator = "%s %s" % (sys.argv[1], sys.argv[2])
    held = {}
    for text in sys.stdin:
        words = text.split()
        if not words or words[0].startswith("#"):
            continue
        if words[0] == "add":
            key, line = record(words, originator)
            held[key] = line
        elif words[0] == "withdraw":
            held.pop((str(ipaddress.ip_address(words[1])), words[3], words[5]), None)
    for line in sorted(held.values()):
        print(line)


if __name__ == "__main__":
    main()
