#!/usr/bin/env python3
"""Writes the INI files that the profile reader is checked with.

Each file exercises one group of behaviours; queries.txt names what is asked
of each. Run from this folder; the files are committed, so this is only
needed when a case is added. WinePrefix.ProfileStringsMatchWinesAnswers asks
Wine the same questions live, through the probe, and compares the native
reader's answers with Wine's.
"""

import codecs


def utf16(text, bom=True):
    return (codecs.BOM_UTF16_LE if bom else b"") + text.encode("utf-16-le", "surrogatepass")


def write(name, data):
    with open(name, "wb") as f:
        f.write(data)


BASIC = (
    "[Fusion]\r\n"
    "Count=1\r\n"
    "A=plain\r\n"
    "  C  =  spaced value  \r\n"
    "D=\"quoted\"\r\n"
    "E='single'\r\n"
    "G=\"half\r\n"
    "H=half\"\r\n"
    "I='mixed\"\r\n"
    "J=\"\"\r\n"
    "K=\"\r\n"
    "L=\" inner blanks \"\r\n"
    "M=\"a\"b\"\r\n"
    "F=a=b\r\n"
    ";Comment=hidden\r\n"
    " ;Indented=x\r\n"
    "#Hash=y\r\n"
    "NoEquals\r\n"
    "=novalue\r\n"
    "Empty=\r\n"
    "Tab\t=\ttabbed\t\r\n"
    "A=duplicate\r\n"
    "Mixed Case Key=mk\r\n"
    "[NoClose\r\n"
    "N=after unclosed\r\n"
    "[fusion]\r\n"
    "A=second section\r\n"
    "Z=only in second\r\n"
    "[Other]\r\n"
    "A=other\r\n"
    "[ Spaced ]\r\n"
    "A=spaced section\r\n"
    "[Trail]junk\r\n"
    "A=trail\r\n"
    "[]\r\n"
    "A=empty section\r\n"
    "[FUSION]\r\n"
    "B=third\r\n"
)

write("basic_utf16.ini", utf16(BASIC))
write("basic_ansi.ini", BASIC.encode("ascii"))
write("basic_utf8bom.ini", codecs.BOM_UTF8 + BASIC.encode("utf-8"))
write("basic_utf16be.ini", codecs.BOM_UTF16_BE + BASIC.encode("utf-16-be"))
write("basic_utf16_nobom.ini", utf16(BASIC, bom=False))

# Line ends: CR LF, LF, lone CR, LF CR, blank lines, no final line end.
write("lineends_ansi.ini", b"[S]\r\nA=crlf\r\nB=lf\nC=cr\rD=lfcr\n\rE=blank\r\n\r\n\n\rF=last")
write("lineends_utf16.ini", utf16("[S]\r\nA=crlf\r\nB=lf\nC=cr\rD=lfcr\n\rE=blank\r\n\r\n\n\rF=last"))

# Text before the first section, and keys in two sections of one name.
write("sections_ansi.ini",
      b"A=before any section\r\n[S]\r\nA=1\r\n[T]\r\nA=t\r\n[s]\r\nA=2\r\nB=only later\r\n")

# 8-bit bytes: every byte from 0x80 to 0xFF, and UTF-8 without a BOM.
write("highbytes_ansi.ini",
      b"[S]\r\nA=" + bytes(range(0x80, 0x100)) + b"\r\n"
      b"B=Gr\xc3\xbc\xc3\x9fe\r\n"
      b"\xc4\xd6=umlaut key\r\n"
      b"C=\x01\x02\x1f\x7f\r\n")

# UTF-8 with a BOM: valid text, a four-byte sequence, and bytes that are not UTF-8.
write("utf8_bom.ini",
      codecs.BOM_UTF8 + b"[S]\r\n"
      b"A=Gr\xc3\xbc\xc3\x9fe\r\n"
      b"B=\xf0\x9f\x98\x80\r\n"
      b"C=a\xffb\r\n"
      b"D=a\xc3b\r\n"
      b"E=a\xed\xa0\x80b\r\n"
      b"F=a\xc0\xafb\r\n"
      b"G=a\xe2\x82b\r\n"
      b"H=\xf4\x90\x80\x80\r\n"
      b"I=\xe0\x80\x80\r\n"
      b"J=\xf0\x80\x80\x80\r\n"
      b"K=\xf5\x80\r\n"
      b"L=\xed\x9f\xbf\xee\x80\x80\r\n"
      b"M=\xf0\x90\x80\x80\xf4\x8f\xbf\xbf\r\n"
      b"N=\xc1\xbf\xc2\x80\xdf\xbf\r\n"
      b"O=\xe0\xa0\x80\xe0\x9f\xbf\r\n")

# Non-ASCII text, case folding beyond A-Z, surrogates and NUL code units.
UNI = (
    "[Fusion]\r\n"
    "A=Grüße \U0001F600 \u4e2d\r\n"
    "B=x\ud800y\r\n"
    "C=x\udc00y\r\n"
    "D=\ud83d\r\n"
    "\u00c4\u00d6=umlaut key\r\n"
    "\u0391\u0392=greek key\r\n"
    "\u0130=dotted I\r\n"
    "E=a\x00b\r\n"
    "F\x00G=nul in key\r\n"
    "H=\x00\r\n"
    "[\u00c4\u00e9]\r\n"
    "A=umlaut section\r\n"
    "[Nul\x00Sec]\r\n"
    "A=nul section\r\n"
)
write("unicode_utf16.ini", utf16(UNI))

# Blanks of several kinds around keys and values.
SPACES = (
    "[S]\r\n"
    "\tA\t=\tTabs\t\r\n"
    "\x0bB\x0b=\x0bVT\x0b\r\n"
    "\x0cC\x0c=\x0cFF\x0c\r\n"
    "\x1aD\x1a=\x1aSUB\x1a\r\n"
    "\u00a0E\u00a0=\u00a0NBSP\u00a0\r\n"
    "\u3000F\u3000=\u3000IDEO\u3000\r\n"
    "\u2003G\u2003=\u2003EM\u2003\r\n"
    "\u0085H\u0085=\u0085NEL\u0085\r\n"
    "\u200bI\u200b=\u200bZWSP\u200b\r\n"
    "\ufeffJ=BOM in line\r\n"
    "K=\" \"\r\n"
)
write("spaces_utf16.ini", utf16(SPACES))

# Degenerate files.
write("empty.ini", b"")
write("bom_only.ini", codecs.BOM_UTF16_LE)
write("single_byte.ini", b"\xff")
# An odd last byte: Wine reads it with a byte from past the end of its
# buffer, so only what comes before it is asked for.
write("odd_utf16.ini", utf16("[S]\r\nA=odd\r\n") + b"\x41")
write("odd_short.ini", codecs.BOM_UTF16_LE + b"\x5b")
write("utf8_bom_only.ini", codecs.BOM_UTF8)
write("no_line_end.ini", b"[S]")

# NUL code units beside blanks, more control blanks, brackets in headers.
EDGE = (
    "[S]\r\n"
    "k \x00 x = v1\r\n"
    "\x1cA\x1c=\x1cFS\x1c\r\n"
    "\x1fB\x1f=\x1fUS\x1f\r\n"
    "\x1bC\x1b=\x1bESC\x1b\r\n"
    "D=v \x00 \r\n"
    "E=\" \x00 \"\r\n"
    "F=\"\x00\"\r\n"
    "  [a]b]  \r\n"
    "A=bracket\r\n"
    "[ ab \x00 cd ]\r\n"
    "A=nulsec\r\n"
    "[ ab ]\r\n"
    "A=ab\r\n"
    "[\tTabSec\t]\r\n"
    "A=tabsec\r\n"
    "[x\x00]\r\n"
    "A=x nul\r\n"
)
write("edge_utf16.ini", utf16(EDGE))
write("edge_ansi.ini", b"[S]\r\nA=a\x00b\r\n\x00B=c\r\n")

# UTF-8 sequences cut by the end of the file.
write("utf8_tail.ini", codecs.BOM_UTF8 + b"[S]\r\nA=x\r\nB=a\xe2A")
write("utf8_tail4.ini", codecs.BOM_UTF8 + b"[S]\r\nB=a\xf0\x9f")

# Long values around the 32,767 cut.
LONG = "[S]\r\n"
for n in (32766, 32767, 32768, 40000):
    LONG += "L%d=%s\r\n" % (n, "x" * n)
LONG += "Q32767=\"%s\"\r\n" % ("q" * 32767)
LONG += "Q32766=\"%s\"\r\n" % ("q" * 32766)
LONG += "Q32765=\"%s\"\r\n" % ("q" * 32765)
LONG += "K%s=long key\r\n" % ("k" * 40000)
LONG += "Short=abcdef\r\n"
LONG += "Quoted=\"abcd\"\r\n"
write("long_ansi.ini", LONG.encode("ascii"))
write("long_utf16.ini", utf16(LONG))


# What is asked of each file: file, section, key, default value, buffer size.
# Text fields take \uXXXX for any code unit and \\ for a backslash.
def esc(text):
    out = []
    units = text.encode("utf-16-le", "surrogatepass")
    for i in range(0, len(units), 2):
        u = units[i] | (units[i + 1] << 8)
        if u == 0x5C:
            out.append("\\\\")
        elif 0x21 <= u < 0x7F:
            out.append(chr(u))
        else:
            out.append("\\u%04X" % u)
    return "".join(out)


queries = []


def q(file, section, key, default="", size=32768):
    queries.append("\t".join([file, esc(section), esc(key), esc(default), str(size)]))


BASIC_KEYS = ["Count", "A", "C", "D", "E", "G", "H", "I", "J", "K", "L", "M", "F",
              ";Comment", "Comment", ";Indented", "Indented", "#Hash", "NoEquals", "",
              "Empty", "Tab", "mixed case key", "Mixed Case Key", " A ", "N", "[NoClose",
              "Z", "B", "count", "COUNT"]
for f in ("basic_utf16.ini", "basic_ansi.ini", "basic_utf8bom.ini", "basic_utf16be.ini",
          "basic_utf16_nobom.ini"):
    for k in BASIC_KEYS:
        q(f, "Fusion", k, "dflt")
    for s in ("fusion", "FUSION", " Fusion ", "Other", "Spaced", " Spaced ", "Trail",
              "", "NoClose", "Missing"):
        q(f, s, "A", "dflt")
q("basic_utf16.ini", "Fusion", "Missing", "")
q("basic_utf16.ini", "Fusion", "Missing", "  def  ")
q("basic_utf16.ini", "Fusion", "Missing", "\"qdef\"")
q("basic_utf16.ini", "Fusion", "Missing", "\tdef\t")
q("basic_utf16.ini", "Fusion", "Missing", "  ")
q("basic_utf16.ini", "Fusion", "Missing", "abcdef", 4)
for size in (1, 2, 3, 5, 6, 7, 8):
    q("basic_utf16.ini", "Fusion", "A", "dflt", size)
    q("basic_utf16.ini", "Fusion", "D", "dflt", size)
q("missing_file.ini", "Fusion", "A", "dflt")
q("missing_file.ini", "Fusion", "A", "")

for f in ("lineends_ansi.ini", "lineends_utf16.ini"):
    for k in "ABCDEF":
        q(f, "S", k, "dflt")

for s, k in (("", "A"), ("S", "A"), ("s", "B"), ("T", "A"), ("t", "a")):
    q("sections_ansi.ini", s, k, "dflt")

for k in ("A", "B", "C", "\u00c4\u00d6", "\u00e4\u00f6"):
    q("highbytes_ansi.ini", "S", k, "dflt")

for k in "ABCDEFGHIJKLMNO":
    q("utf8_bom.ini", "S", k, "dflt")

for k in ("A", "B", "C", "D", "\u00c4\u00d6", "\u00e4\u00f6", "\u03b1\u03b2", "\u0130", "i",
          "E", "F", "F\x00G", "H"):
    q("unicode_utf16.ini", "Fusion", k, "dflt")
for s in ("\u00c4\u00e9", "\u00e4\u00c9", "Nul", "Nul\x00Sec"):
    q("unicode_utf16.ini", s, "A", "dflt")

for k in "ABCDEFGHIJK":
    q("spaces_utf16.ini", "S", k, "dflt")
q("spaces_utf16.ini", "S", "\ufeffJ", "dflt")

for f in ("empty.ini", "bom_only.ini", "single_byte.ini", "utf8_bom_only.ini", "no_line_end.ini"):
    q(f, "S", "A", "dflt")
q("single_byte.ini", "\u00ff", "A", "dflt")
q("odd_utf16.ini", "S", "A", "dflt")
q("odd_short.ini", "S", "A", "dflt")

for s_, k in (("S", "k"), ("S", "k "), ("S", "A"), ("S", "B"), ("S", "C"), ("S", "D"), ("S", "E"),
              ("S", "F"), ("a", "A"), ("a]b", "A"), ("ab", "A"), ("TabSec", "A"), ("x", "A")):
    q("edge_utf16.ini", s_, k, "dflt")
for k in ("A", "B", ""):
    q("edge_ansi.ini", "S", k, "dflt")
q("utf8_tail.ini", "S", "B", "dflt")
q("utf8_tail4.ini", "S", "B", "dflt")
for k in ("C", "A", ""):
    q("basic_utf16_nobom.ini", "", k, "dflt")

# Defaults: missing file, missing folder, a folder in place of the file.
for f in ("missing_file.ini", "missing_dir\\x.ini", ".."):
    for d in ("\"q\"", "  x  ", "", "'y'"):
        q(f, "S", "A", d)
for size in (4, 5, 6):
    q("basic_utf16.ini", "Fusion", "Missing", "\"qdef\"", size)
    q("missing_dir\\x.ini", "Fusion", "Missing", "\"qdef\"", size)

for f in ("long_ansi.ini", "long_utf16.ini"):
    for k in ("L32766", "L32767", "L32768", "L40000", "Q32767", "Q32766", "Q32765"):
        q(f, "S", k, "dflt")
    q(f, "S", "K" + "k" * 40000, "dflt")
    q(f, "S", "L40000", "dflt", 40002)
    q(f, "S", "L40000", "dflt", 100)
    for size in (0, 1, 2, 5, 6, 7):
        q(f, "S", "Short", "dflt", size)
    for size in (3, 4, 5, 6, 7):
        q(f, "S", "Quoted", "dflt", size)
q("long_ansi.ini", "S", "Missing", "x" * 40000)

with open("queries.txt", "w", newline="\n") as f:
    f.write("\n".join(queries) + "\n")
