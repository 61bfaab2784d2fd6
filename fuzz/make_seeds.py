#!/usr/bin/env python3
"""Writes the seed corpora in fuzz/corpus/<target>/ from the cases the unit tests use."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    d = os.path.join(HERE, "corpus", target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data if isinstance(data, bytes) else data.encode())


def lsb(size, fields):
    """Header bytes from (first, width, value) fields, least-significant bit first."""
    bits = [0] * (size * 8)
    for first, width, value in fields:
        value &= (1 << width) - 1
        for i in range(width):
            bits[first + i] = (value >> i) & 1
    return bytes(sum(bits[8 * b + i] << i for i in range(8)) for b in range(size))


# GPS formats files.
base = "Fmt A,TypeX,Maker,Desc,64,0,1,1,24,1,1,0,1,0,25,1,26,23,2,3,4,5,1,1,1021,10,16,26,40,7,2"
write("fuzz_gpsformats", "one", "1\n" + base + "#\n")
write("fuzz_gpsformats", "empty", "0\n")
write("fuzz_gpsformats", "mixed",
      "4\n\n" + base.replace("Fmt A", "Zulu") + "#\r\n" + base.replace("Desc", "a,b") + "\n" +
      base.replace("Fmt A", "Alpha") + "\n" + base.replace("Fmt A", "Zulu").replace("Desc", "Later") + "\n" +
      ",".join(base.split(",")[:30]) + "\n" + base.replace("Fmt A", "Mid"))
write("fuzz_gpsformats", "odd_numbers",
      "1\nX,,,Météo,-5,2147483648,-1,0,24,1,0,0,0,1,24,1,25,24,1,1,0,1,0,65536,-1,x,0,0,0,0,65535##\n")

# Coordinate block (nine little-endian int32) then payload.
def coord(block, payload):
    return struct.pack("<9i", *block) + payload

write("fuzz_position", "ninety", coord([0, 0, 0, 24, 1, 1, 0, 1, 0], bytes.fromhex("5265c0")))
write("fuzz_position", "fold", coord([0, 0, 0, 24, 1, 1, 0, 1, 1], bytes.fromhex("5265c1")))
write("fuzz_position", "sign11", coord([0, 2, 8, 8, 5000, 1, 0, 1, 0], bytes.fromhex("c00c")))
write("fuzz_position", "nan", coord([0, 0, 0, 24, 1, 1, 0, 0, 0], bytes.fromhex("5265c0")))
write("fuzz_position", "long_field", coord([-8, 8, 0, 40, 1, 1, 0, 1, 0], bytes.fromhex("0102030405")))

# Per-platform dumps: 22-byte header, payload of (code + 1) * 4 bytes.
def v1(a=1, code=0, lat=0, lon=0, level=0):
    h = lsb(22, [(0, 1, 1), (8, 5, 12), (13, 6, 34), (19, 6, 56), (25, 5, 29), (30, 4, 2), (34, 7, 24),
                 (41, 29, a), (70, 9, 511), (79, 9, 3), (88, 10, level), (98, 16, 90), (114, 25, lat),
                 (139, 24, lon), (163, 9, 45), (173, 3, code)])
    return h + bytes(range(1, (code + 1) * 4 + 1))

prefix = lambda id7, index: bytes([1 if id7 else 0]) + struct.pack("<I", index)
write("fuzz_flash_platform", "one", prefix(False, 5) + v1())
write("fuzz_flash_platform", "two", prefix(True, 3) + v1() + v1(a=2, code=7, lat=-16777216, lon=-8388608, level=-512))
write("fuzz_flash_platform", "extra_byte", prefix(False, 0) + v1() + b"\0")
write("fuzz_flash_platform", "short_payload", prefix(False, 0) + v1(code=7)[:40])

# Single dumps: 26-byte header, (bits + 7) / 8 payload bytes and one more byte.
def v2(a=1, bits=32, ident=0x12345, k=0, lat=0):
    h = lsb(26, [(0, 4, 3), (4, 3, 5), (8, 28, ident), (40, 5, 12), (45, 6, 34), (51, 6, 56), (57, 5, 29),
                 (62, 4, 2), (66, 7, 24), (73, 29, a), (102, 9, 300), (111, 10, -120), (121, 16, 60),
                 (137, 25, lat), (162, 24, -1), (186, 9, 7), (195, 3, k), (198, 9, bits)])
    return h + bytes(range(1, (bits + 7) // 8 + 1)) + b"\0"

write("fuzz_flash_dump", "one", v2() + b"\xff")
write("fuzz_flash_dump", "two", v2() + v2(a=2, bits=511, ident=0xABCDEF0, k=2, lat=-16777216) + b"\x80")
write("fuzz_flash_dump", "no_end_mark", v2())
write("fuzz_flash_dump", "bad_header", v2() + b"\x7f")
write("fuzz_flash_dump", "erased", b"\xff" * 64)

# Device lines: replies, reports, a bad checksum, the GNX134 short NPR checksum, noise.
def frame(payload):
    cs = 0
    for c in (payload + "*").encode("latin-1"):
        cs ^= c
    return "$%s*%02X" % (payload, cs)

npr234 = "26,11,22,3,4,5,ABCDE,401650000,6,10,-120,60000,120000,7,2,2,56,115265C0E4E1C0"
nprf134 = "26,11,22,3,4,5,ABCDE,401650000,6,10,250,-120,60,60000,120000,7,52,65C0E4"
write("fuzz_device_lines", "replies", "\r\n".join([frame("GSN,12-345"), frame("TEST,GNX234,99,429,B,APP,2.11,3.4.0,5.2"),
                                                    frame("ACK,0"), "$GSN,12-345*41", "$IP,9,*0a", "\x00$garbage"]) + "\r\n")
write("fuzz_device_lines", "reports", frame("NPR," + npr234) + "\r\n" + frame("NPRF," + nprf134) + "\r\n")

# NPR/NPRF fields after the mnemonic, both generations.
write("fuzz_reports", "npr_gnx234", npr234)
write("fuzz_reports", "nprf_gnx134", nprf134)
write("fuzz_reports", "wrong_count", "1,2,3")

# Platform slot replies (CMD_IP): a free slot and used ones of both generations.
write("fuzz_platform_reply", "free_gnx134", "3" + "," * 35)
write("fuzz_platform_reply", "used_gnx234",
      "5,1,1,ABCDEF0,Buoy,1,FMT,,,Desc,64,0,1,1,24,1,1,0,1,0,25,1,26,23,2,3,4,5,1,60,2,1,1,401650000,1,1021,10,16,26")
write("fuzz_platform_reply", "used_gnx134",
      "2,1,1,ABCDE,Float,1,FMT,,,Desc,64,0,1,1,24,1,1,0,1,0,25,1,26,23,2,3,4,5,1,60,5,1,1021,10,16,26")

# Settings files: complete, partial, not an INI file.
write("fuzz_settings", "complete", "[General]\nprintUartDebugInfo=false\nprintAtCmdDebugInfo=true\n"
      "gnxCommandTimeoutMs=60000\nkeepAliveTimeoutMs=500\nkeepAlivePeriodMs=1000\n"
      "keepChecksumErrorOnNprGnx134=false\nnprMessagesFormat=0\n")
write("fuzz_settings", "partial", "[General]\ngnxCommandTimeoutMs=abc\n")
write("fuzz_settings", "binary", "\x00\xff[\n=\n")

# Firmware files: a good one, another generation, no version line.
write("fuzz_firmware_file", "good", "VANTOR GONIO_V2 FIRMWARE VERSION : 4.0.1\r:10000000AABB\r:00000001FF\r")
write("fuzz_firmware_file", "other_generation", "VANTOR GONIO_V1 FIRMWARE VERSION : 1.0  \rV00")
write("fuzz_firmware_file", "bad_first_line", "HELLO\rV00")

# Platform files as the export writes them, both generations, and a line of spaces.
write("fuzz_platforms_csv", "gnx234", "#,Orvia ID,Label,GPS Format Name,Repetition period,Orvia Band,Modulation,"
      "Frequency Mode,Narrow Mode Frequency\nABCDE,Buoy,,60,3,1,0,401650000\nABCDEF0,North, buoy,,90,2,0,1,0\n")
write("fuzz_platforms_csv", "gnx134", "#,Orvia ID,Label,GPS Format Name,Repetition period,Mean Direction Values\n"
      "12345,Float,,60,5\n  \n")

# Typed commands and scripts: known and unknown commands, with and without checksums, a wrong one.
write("fuzz_typed_commands", "script", "# saved configuration\n$SETUPSW,1,1,20,1,0,0,0,,,,,,0,0*0D\n$GSN*70\nTEST\n"
      "$TEST*00\nFOO,1\n\n$\n*\nIP,3,,,\n")

# Link framing scripts: an op byte (0 GSN, 1 RFP binary, 2 RFP text, 3 ATBL, else a chunk whose
# length is 4 x the next byte). Replies, a crossing report, a binary answer in pieces.
def chunk(b):
    b = b.encode("latin-1") if isinstance(b, str) else b
    b = b + b"\0" * ((4 - len(b) % 4) % 4)
    return bytes([5, len(b) // 4]) + b

def rfp_frame(k, address, block):
    body = b"RFP,%d,%d," % (k, address) + block
    cs = 0
    for c in body + b"*":
        cs ^= c
    return b"$" + body + b"*" + b"%02X" % cs + b"\r\n"

count = bytes(124) + (2).to_bytes(4, "big")
binary = rfp_frame(0, 0, count) + rfp_frame(1, 0, bytes(range(128))) + rfp_frame(2, 128, b"")
write("fuzz_link_framing", "reply", bytes([0]) + chunk(frame("NPR," + npr234) + "\r\n" + frame("GSN,12,345") + "\r\n"))
write("fuzz_link_framing", "binary", bytes([1]) + chunk(binary[:50]) + chunk(binary[50:]))
write("fuzz_link_framing", "text_rfp", bytes([2]) + chunk(frame("RFP,1,0102A0FF") + "\r\n" + frame("RFP,0,") + "\r\n"))
write("fuzz_link_framing", "ack", bytes([3]) + chunk(frame("ACK,1") + "\r\n"))
