#!/usr/bin/env python3
"""Writes the named seeds of the fuzz corpora (tests/fuzz/corpus/NAME/):
well-formed inputs of each kind, plus the edge cases the parsers must
survive.  The other files of a corpus are kept as they are: inputs that made
a fuzzer crash, added by hand as regression seeds (regress-*), and the inputs
named by their SHA-1, the minimized corpus of long runs (libFuzzer -merge=1
of their work corpora into this one), so that the short runs of the test
suite start from the coverage those reached."""

import os
import struct

HERE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def put(kind, name, data):
    d = os.path.join(HERE, kind)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data.encode() if isinstance(data, str) else data)


# /proc/diskstats
DISK20 = "   8       0 sda 12345 67 987654 4321 2345 89 456789 9876 0 5432 14197 10 0 800 12 34 56\n"
put("diskstats", "kernel-5", DISK20 + "   8       1 sda1 1000 0 8000 100 0 0 0 0 0 100 100 0 0 0 0 0 0\n"
    "   7       0 loop0 10 0 80 1 0 0 0 0 0 1 1 0 0 0 0 0 0\n"
    " 179       0 mmcblk0 500 1 4000 50 60 2 480 30 0 70 80\n"
    " 253       0 dm-0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17\n")
put("diskstats", "old-kernel-partition", "   8    1 sda1 11 22 33 44\n")
put("diskstats", "long-line", "   8       0 sdq 1 2 3 4 5 6 7 8 9 10" + " " * 240 + " 77 1 2 3\n"
    "   8       0 sdr 1 2 3 4 5 6 7 8 9 10 11\n")
put("diskstats", "counters-wrap", "   8       0 sda 18446744073709551615 0 18446744073709551615 4294967295 "
    "1 0 1 4294967295 0 4294967295 4294967295\n")

# /proc/mounts
put("mounts", "box", "/dev/root / ext4 rw,relatime 0 0\nproc /proc proc rw 0 0\n"
    "/dev/mmcblk0p3 /data ext4 rw,relatime 0 0\n/dev/mmcblk0p4 /data2 ext4 ro 0 0\n"
    "tmpfs /tmp tmpfs rw 0 0\n/dev/sda1 /mnt/usb0 vfat rw 0 0\nserver:/x /mnt/nfs nfs rw 0 0\n")
put("mounts", "odd", "\n \n/dev/x\n/dev/y /data/\n/dev/z " + "/" * 40 + "\n/dev/w /mnt/storage x\\040y 0 0\n")

# EXT_CSD: power-on line, then the register dump
def csd(a, b):
    h = ["0"] * 1024
    h[536:538] = "%02x" % a
    h[538:540] = "%02x" % b
    return "".join(h)

put("ext_csd", "wear-5", "25920000\n" + csd(1, 0) + "\n")
put("ext_csd", "both-valid", "2592000\n" + csd(2, 3) + "\n")
put("ext_csd", "wear-105", "0x4F1A00 words\n" + csd(0, 11) + "\n")
put("ext_csd", "huge-uptime", "18446744073709551615\n" + csd(1, 0) + "\n")
put("ext_csd", "short", "023615000\n" + csd(1, 0)[:539] + "\n")

# SMART report
def attr(i, name, raw):
    return "%3d %-24s0x0032   100   100   000    Old_age   Always       -       %s\n" % (i, name, raw)

HEAD = ("smartctl 7.3 2022-02-28 r5338 [x86_64-linux] (local build)\n=== START OF INFORMATION SECTION ===\n"
        "Device Model:     ACME SSD-32G v1\nUser Capacity:    32,017,047,552 bytes [32.0 GB]\n"
        "Sector Size:      512 bytes logical/physical\n"
        "ID# ATTRIBUTE_NAME          FLAG     VALUE WORST THRESH TYPE      UPDATED  WHEN_FAILED RAW_VALUE\n")
put("smart", "budget", HEAD + attr(9, "Power_On_Hours", "1440") + attr(233, "Media_Wearout_Indicator", "1000"))
put("smart", "life-left", HEAD + attr(9, "Power_On_Hours", "1440") + attr(231, "SSD_Life_Left", "90")
    + "231 SSD Life left 0x0013 090 090 Pre-fail Always 75 -\n" + attr(233, "Unknown_Attribute", "0x10"))
put("smart", "int-min-life-left", HEAD + attr(9, "Power_On_Hours", "1440") + attr(231, "Unknown_Attribute",
                                                                                     "2147483648")
    + attr(233, "Media_Wearout_Indicator", "5"))
put("smart", "no-hours", HEAD.replace("32,017", "256,060") + attr(231, "Unknown_Attribute", "100")
    + attr(233, "Media_Wearout_Indicator", "077"))

# taskstats reply: netlink header, generic header, AGGR_PID { PID, STATS }
def nla(t, payload):
    n = 4 + len(payload)
    return struct.pack("HH", n, t) + payload + b"\0" * ((4 - n % 4) % 4)

stats = bytearray(352)
struct.pack_into("H", stats, 0, 10)          # version
struct.pack_into("Q", stats, 248, 4096)       # read_bytes region (exact offset does not matter)
stats_attr = nla(3, bytes(stats))              # TASKSTATS_TYPE_STATS
aggr = nla(4, nla(1, struct.pack("I", 1234)) + stats_attr)  # TASKSTATS_TYPE_AGGR_PID { PID, STATS }
genl = struct.pack("BBH", 2, 1, 0)
body = genl + aggr
put("taskstats", "aggr-pid", struct.pack("IHHII", 16 + len(body), 22, 0, 0, 0) + body)
body = genl + nla(5, nla(2, struct.pack("I", 99)) + stats_attr)
put("taskstats", "aggr-tgid", struct.pack("IHHII", 16 + len(body), 22, 0, 0, 0) + body)
put("taskstats", "error", struct.pack("IHHII", 36, 2, 0, 0, 0) + struct.pack("i", -3) + b"\0" * 16)

# bus records: kind byte, reply-kind byte, packed record
def varint(v):
    out = b""
    v &= (1 << 64) - 1
    while True:
        b = v & 0x7f
        v >>= 7
        if v:
            out += bytes([b | 0x80])
        else:
            return out + bytes([b])

def fv(n, v):
    return varint(n << 3) + varint(v)

def fd(n, v):
    return varint(n << 3 | 1) + struct.pack("<d", v)

def fs(n, b):
    b = b.encode() if isinstance(b, str) else b
    return varint(n << 3 | 2) + varint(len(b)) + b

INDEX = fs(5, fv(1, 0) + fv(2, 5) + fv(3, 0))
disk = fs(6, fs(1, "sda") + fd(2, 12.5) + fd(3, 300.25) + fd(4, 97.0) + fd(5, 2.0))
proc = fs(7, fv(1, 1234) + fs(2, "dd") + fd(3, 4096) + fd(4, 8192) + fd(5, 0) + fd(6, 12) + fs(7, "dd if=x"))
put("bus_records", "io-warning", b"\x00\x01" + INDEX + disk + proc)
put("bus_records", "io-hostile-name", b"\x00\x01" + INDEX + fs(6, fs(1, "sd\nslot9 forged\x1b[2J") + fd(5, 2.0)))
put("bus_records", "io-flag-nan", b"\x00\x04" + INDEX + fs(6, fs(1, "sda") + fd(5, float("nan")))
    + fs(6, fs(1, "sdb") + fd(5, -1e300)) + fs(6, fs(1, "sdc") + fd(5, 1e300)))
part = fs(6, fs(1, "/data") + fs(2, "flash") + fv(3, 1000) + fv(4, 875) + fv(5, 2) + fv(6, 1) + fv(7, 1))
put("bus_records", "part-capacity", b"\x01\x01" + INDEX + part)
put("bus_records", "part-capacity-zero-total", b"\x01\x04" + INDEX + fs(6, fs(1, "/x" * 40) + fs(2, "n\x7f")
                                                                     + fv(5, 2) + fv(6, 1) + fv(7, 1)))
put("bus_records", "part-ro", b"\x02\x01" + INDEX + fs(6, fs(1, "/mnt/usb0") + fs(2, "usb0") + fv(3, 2)
                                                      + fv(4, 1) + fv(5, 1)))
put("bus_records", "lifetime", b"\x03\x01" + INDEX + fs(6, fs(1, "emmc") + fv(2, 10) + fv(3, 7)
                                                       + fv(4, 2)))
put("bus_records", "lifetime-negative", b"\x03\x04" + INDEX + fs(6, fs(1, "emmc") + fv(3, -5) + fv(4, -1)))
put("bus_records", "upgrade", b"\x04\x00" + fv(5, 3))
put("bus_records", "issu", b"\x05\x04" + fv(5, 1))
put("bus_records", "conf", b"\x06\x01" + INDEX + fv(6, 20) + fv(7, 60) + fv(8, 30) + fv(9, 30) + fv(10, 85)
    + fv(11, 120) + fv(12, 6))
put("bus_records", "dbg", b"\x07\x01" + INDEX + fv(6, 4))

# INI config
put("config_ini", "full", "[log]\nfile = /tmp/x.log\nmax_size = 10485760\nmax_files = 5\nlevel = debug\n"
    "[loop]\nsecond_ms = 100\n[bus]\nurl = redis://127.0.0.1:6379\n[node]\ndevid = 0\nphy_slot = 5\n"
    "user_slot = 3\nnode_type = 3\nrole = 0\nslot_name = LC\ncard_name = LC-48X\n"
    "[cap]\nCAP_DEV_TYPE = LC\nCAP_FLASH_IDNAME = EMMC-8G\n[cli]\nsocket =\nstartup_file =\n")
put("config_ini", "errors", "[loop]\nsecond_ms = soon\n")
put("config_ini", "malformed", "; comment\n[log\nno equals sign\n[node]\nslot = 3\nrole = 4\n")

# operator lines
put("cli_parse", "config", "storage io set interval 20 threshold 60\nstorage ro set interval 45\n"
    "no storage capacity set\ndefault storage lifetime set\nstorage lifetime set threshold 1\n"
    "storage io set\nstorage io set interval 9\nstor i s th 70\n")
put("cli_parse", "show", "show storage all-info\nshow storage io\nshow storage ro set\nshow storage lifetime set\n"
    "show storage capacity\n")
put("cli_parse", "debug", "debug stovig\ndebug stovig 4\nno debug stovig\ndebug stovig 9\n")
