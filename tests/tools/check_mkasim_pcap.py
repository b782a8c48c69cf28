#!/usr/bin/python3
"""Checks the MKPDUs that mkasim puts on its links with two readers that share nothing with the
engine: Wireshark's dissector (tshark), and this script's own decoder, which recomputes every
ICV and unwraps every distributed SAK from the configured CAK and CKN alone, with its own key
derivation on the `cryptography` package.

Usage: check_mkasim_pcap.py PATH_TO_MKASIM
"""

import os
import struct
import subprocess
import sys
import tempfile

from cryptography.hazmat.primitives import cmac
from cryptography.hazmat.primitives.ciphers import algorithms
from cryptography.hazmat.primitives.keywrap import aes_key_unwrap

PAE_GROUP = bytes.fromhex("0180c2000003")


def aes_cmac(key, data):
    mac = cmac.CMAC(algorithms.AES(key))
    mac.update(data)
    return mac.finalize()


def kdf(key, label, context, bits):
    """IEEE 802.1X-2010 6.2.1: counter mode with AES-CMAC."""
    out = b""
    counter = 1
    while len(out) < bits // 8:
        out += aes_cmac(key, bytes([counter]) + label + b"\x00" + context + struct.pack(">H", bits))
        counter += 1
    return out[: bits // 8]


def ick_and_kek(cak_hex, ckn_hex):
    cak = bytes.fromhex(cak_hex)
    context = (bytes.fromhex(ckn_hex) + bytes(16))[:16]
    bits = len(cak) * 8
    return kdf(cak, b"IEEE8021 ICK", context, bits), kdf(cak, b"IEEE8021 KEK", context, bits)


def pcap_frames(path):
    with open(path, "rb") as f:
        data = f.read()
    magic, = struct.unpack("<I", data[:4])
    assert magic == 0xA1B2C3D4, "not a pcap file"
    at = 24
    while at + 16 <= len(data):
        _, _, length, _ = struct.unpack("<IIII", data[at : at + 16])
        yield data[at + 16 : at + 16 + length]
        at += 16 + length


def decode(frame, ick, kek):
    """The fields of one MKPDU, after checking its layout and ICV."""
    assert frame[:6] == PAE_GROUP, "not to the PAE group address"
    ethertype, version, ptype, body_length = struct.unpack(">HBBH", frame[12:18])
    assert (ethertype, version, ptype) == (0x888E, 3, 5), "not an EAPOL-MKA frame"
    assert body_length == len(frame) - 18 and body_length % 4 == 0, "body length"
    body = frame[18:]
    sets, icv = body[:-16], body[-16:]
    assert aes_cmac(ick, frame[:-16]) == icv, "ICV does not verify"
    fields = {"icv": icv.hex()}
    mka_version, priority, flags_length = struct.unpack(">BBH", sets[:4])
    basic_length = flags_length & 0x0FFF
    fields.update(
        version=mka_version,
        priority=priority,
        key_server=bool(flags_length & 0x8000),
        sci=sets[4:12].hex(),
        mi=sets[12:24].hex(),
        mn=struct.unpack(">I", sets[24:28])[0],
        ckn=sets[32 : 4 + basic_length].hex(),
    )
    assert struct.unpack(">I", sets[28:32])[0] == 0x0080C201, "algorithm agility"
    assert fields["sci"][:12] == frame[6:12].hex(), "SCI is not the source address"
    at = 4 + ((basic_length + 3) & ~3)
    while at < len(sets):
        kind = sets[at]
        length = struct.unpack(">H", sets[at + 2 : at + 4])[0] & 0x0FFF
        content = sets[at + 4 : at + 4 + length]
        if kind in (1, 2):
            assert length % 16 == 0
            fields.setdefault("peers", []).extend(content[i : i + 12].hex() for i in range(0, length, 16))
        elif kind == 3:
            assert length == 40
        elif kind == 4:
            key_number = struct.unpack(">I", content[:4])[0]
            wrapped = content[4:] if length == 28 else content[12:]
            sak = aes_key_unwrap(kek, wrapped)
            fields["key_number"] = key_number
            fields["sak_length"] = len(sak)
            # Without the field, the default suite: GCM-AES-128.
            fields["suite"] = DEFAULT_SUITE if length == 28 else struct.unpack(">Q", content[4:12])[0]
        at += 4 + ((length + 3) & ~3)
    assert at == len(sets), "parameter sets run past the body"
    return fields


def tshark_fields(path):
    names = ["frame.number", "mka.actor_mi", "mka.actor_mn", "mka.cak_name", "mka.ks_prio", "mka.icv",
             "mka.key_number", "_ws.expert", "_ws.malformed"]
    command = ["tshark", "-r", path, "-T", "fields", "-E", "separator=|", "-E", "occurrence=f"]
    for name in names:
        command += ["-e", name]
    output = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    return [dict(zip(names, line.split("|"))) for line in output.splitlines()]


DEFAULT_SUITE = 0x0080C20001000001
# mkasim's --cipher: the IEEE 802.1AE reference number and the SAK's length in octets.
SUITES = {"128": (DEFAULT_SUITE, 16), "256": (0x0080C20001000002, 32), "xpn-128": (0x0080C20001000003, 16),
          "xpn-256": (0x0080C20001000004, 32)}


def check(mkasim, ckn, cak, suite, extra):
    with tempfile.TemporaryDirectory() as directory:
        path = os.path.join(directory, "mka.pcap")
        subprocess.run([mkasim, "--quiet", "--ckn", ckn, "--cak", cak, "--cipher", suite, "--duration", "40",
                        "--pcap", path] + extra, check=True, capture_output=True)
        ick, kek = ick_and_kek(cak, ckn)
        ours = [decode(frame, ick, kek) for frame in pcap_frames(path)]
        theirs = tshark_fields(path)
    assert len(ours) > 20 and len(ours) == len(theirs), (len(ours), len(theirs))
    last_number = {}
    for mine, wire in zip(ours, theirs):
        assert not wire["_ws.expert"] and not wire["_ws.malformed"], wire
        assert mine["ckn"] == ckn
        assert wire["mka.cak_name"].replace(":", "") == ckn
        assert wire["mka.actor_mi"].replace(":", "") == mine["mi"]
        assert int(wire["mka.actor_mn"].replace(":", ""), 16) == mine["mn"]  # shown as four octets
        assert int(wire["mka.ks_prio"], 0) == mine["priority"]
        assert wire["mka.icv"].replace(":", "") == mine["icv"]
        if "key_number" in mine:
            assert int(wire["mka.key_number"].replace(":", ""), 16) == mine["key_number"]
            assert (mine["suite"], mine["sak_length"]) == SUITES[suite], (mine["suite"], mine["sak_length"])
        # Every member's numbers follow one another from 1: the capture misses none of its frames.
        assert mine["mn"] == last_number.get(mine["mi"], 0) + 1, (mine["mi"], mine["mn"])
        last_number[mine["mi"]] = mine["mn"]
    distributed = [m for m in ours if "key_number" in m]
    assert distributed, "no SAK was distributed"
    return len(ours), len(distributed)


def main():
    mkasim = sys.argv[1]
    cak256 = "a29efdb63d6fba73c65daab2295340a837a8886e94a905b5c9c7ef1d9dbb297e"
    runs = [
        ("96437a93ccf10d9dfe347846cce52c7d", "135bd758b0ee5c11c55ff6ab19fdb199", "128", []),
        ("7888f5d48ba8b24e96bb95bd8c7304ec", cak256, "256",
         ["--switches", "3", "--links", "2", "--delay-protection"]),
        ("11223344", "00112233445566778899aabbccddeeff", "128", ["--latency", "0.05"]),
        # The XPN suites, and CAKs of the other length than the SAK's.
        ("0a0b0c0d", "135bd758b0ee5c11c55ff6ab19fdb199", "xpn-128", []),
        ("0a0b0c0e", cak256, "xpn-256", []),
        ("0a0b0c0f", cak256, "128", []),
        ("0a0b0c10", "135bd758b0ee5c11c55ff6ab19fdb199", "xpn-256", []),
    ]
    for ckn, cak, suite, extra in runs:
        frames, keys = check(mkasim, ckn, cak, suite, extra)
        print(f"CKN {ckn}, cipher {suite}: {frames} MKPDUs verified, {keys} carried a distributed SAK")
    print("1 passed, 0 failed")


if __name__ == "__main__":
    main()
