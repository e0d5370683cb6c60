#!/usr/bin/env python3
"""sws as a user runs it: every option, every output form read back by Python's own csv and json readers and
compared with the records the sources hold, paging, sorts, each exit status, and bad input.

Usage: i-sws.py SWS [EMULATOR...]   (for sws.exe the emulator is wine)

Every run must end with its documented status and, on failure, exactly one error line; a sanitizer report
or a crash fails the case whatever the status.
"""
import csv
import datetime
import io
import json
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

EXE = os.path.abspath(sys.argv[1])
EMULATOR = sys.argv[2:]
WINDOWS = EXE.lower().endswith(".exe")
SEP = "\\" if WINDOWS else "/"
# The Windows build sees the Linux file system through Wine's drive Z:.
NATIVE_PREFIX = "Z:" if WINDOWS else ""

EPOCH = datetime.datetime(1601, 1, 1, tzinfo=datetime.timezone.utc)


def filetime(y, mo, d, h=0, mi=0, s=0):
    delta = datetime.datetime(y, mo, d, h, mi, s, tzinfo=datetime.timezone.utc) - EPOCH
    return (delta.days * 86400 + delta.seconds) * 10_000_000


def iso(ft):
    if ft is None:
        return None
    seconds, ticks = divmod(ft, 10_000_000)
    t = EPOCH + datetime.timedelta(seconds=seconds)
    text = t.strftime("%Y-%m-%dT%H:%M:%S")
    return text + (".%07d" % ticks if ticks else "") + "Z"


def native(path):
    """A host path as the program under test names it."""
    return NATIVE_PREFIX + path.replace("/", SEP)


def unescape(text):
    """The plain and TSV escapes back to the name: the escape byte is '\\' on Linux and '|' on Windows."""
    escape = "|" if WINDOWS else "\\"
    table = {"t": "\t", "n": "\n", "r": "\r", escape: escape}
    out, i = [], 0
    while i < len(text):
        if text[i] == escape and i + 1 < len(text) and text[i + 1] in table:
            out.append(table[text[i + 1]])
            i += 2
        else:
            out.append(text[i])
            i += 1
    return "".join(out)


SANITIZER = re.compile(r"AddressSanitizer|LeakSanitizer|runtime error:|Segmentation fault|Aborted")


class Run:
    def __init__(self, code, out, err):
        self.code, self.out, self.err = code, out, err

    @property
    def text(self):
        return self.out.decode("utf-8")

    @property
    def lines(self):
        return [unescape(line) for line in self.text.split("\n")[:-1]]


def sws(*args, timeout=300):
    env = dict(os.environ)
    env.setdefault("WINEDEBUG", "-all")
    p = subprocess.run(EMULATOR + [EXE] + [str(a) for a in args], stdout=subprocess.PIPE,
                       stderr=subprocess.PIPE, timeout=timeout, env=env)
    err = p.stderr.decode("utf-8", "replace")
    if SANITIZER.search(err):
        raise AssertionError("sanitizer report or crash for %r:\n%s" % (args, err))
    return Run(p.returncode, p.stdout, err)


# The records of the test list: relative path, size (None unknown), date modified, date created, attributes.
FT1, FT2, FT3, FT4 = filetime(2021, 6, 1, 10), filetime(2019, 1, 2, 3, 4, 5), filetime(2023, 12, 31, 23, 59, 59), filetime(2020, 2, 29, 12)
LIST_FILES = [
    ("docs/report.txt", 100, FT1, FT2, 0x20),
    ("docs/Report2.TXT", 250, FT3, None, 0x21),
    ('docs/we,ird "q".txt', 7, FT2, FT1 + 1234567, 0),
    ("docs/tab\there.log", 3, FT4, None, 0x20),
    ("docs/café.txt", 42, FT1, None, 0),
    ("docs/noext", None, None, None, 0),
    ("docs/pi|pe.txt", 1, FT2, None, 0),
    ("music/song.mp3", 5000, FT3, FT3, 0x1),
]
# The settings that make the index keep every column the list gives.
FULL_INDEX = b"[Sablewatch]\r\nindex_date_created=1\r\nindex_date_accessed=1\r\nindex_attributes=1\r\n"
LIST_FOLDERS = [("docs", FT1)]


class Fixture:
    """A scratch folder with a file list of known records and a folder tree."""

    def __init__(self):
        self.dir = tempfile.mkdtemp(prefix="sws-test-")
        self.list = os.path.join(self.dir, "lists", "t.swl")
        os.makedirs(os.path.dirname(self.list))
        rows = ["Filename,Size,Date Modified,Date Created,Attributes"]
        for path, dm in LIST_FOLDERS:
            rows.append('"%s",,%d,,16' % (path.replace("/", SEP), dm))
        for path, size, dm, dc, attr in LIST_FILES:
            cells = ['"%s"' % path.replace("/", SEP).replace('"', '""')]
            cells += ["" if v is None else str(v) for v in (size, dm, dc)] + [str(attr)]
            rows.append(",".join(cells))
        with open(self.list, "w", encoding="utf-8", newline="") as f:
            f.write("\r\n".join(rows) + "\r\n")
        self.base = native(os.path.dirname(self.list))
        self.full_index = self.write("full.ini", FULL_INDEX)

    def full(self, rel):
        return self.base + SEP + rel.replace("/", SEP)

    def expected_files(self, full_index=True):
        """Every file record of the list, in name order (case-blind, as the index orders names). Without
        the full index settings the index keeps neither date created nor attributes."""
        out = []
        for path, size, dm, dc, attr in LIST_FILES:
            if not full_index:
                dc, attr = None, 0
            full = self.full(path)
            name = path.rsplit("/", 1)[1]
            out.append({"filename": full, "name": name, "path": full[: -len(name) - 1], "size": size,
                        "date_modified": iso(dm), "date_created": iso(dc), "date_accessed": None,
                        "attributes": attr, "extension": name.rsplit(".", 1)[1] if "." in name else ""})
        return sorted(out, key=lambda r: (r["name"].casefold(), r["name"]))

    def path(self, *parts):
        return os.path.join(self.dir, *parts)

    def write(self, name, data):
        p = self.path(name)
        with open(p, "wb") as f:
            f.write(data)
        return p


FX = None
ALL_COLUMNS = ["-name", "-path-column", "-size", "-date-modified", "-date-created", "-date-accessed",
               "-attributes", "-extension"]
TITLES = ["Filename", "Name", "Path", "Size", "Date Modified", "Date Created", "Date Accessed", "Attributes",
          "Extension"]
KEYS = ["filename", "name", "path", "size", "date_modified", "date_created", "date_accessed", "attributes",
        "extension"]


def table_record(cells):
    """A CSV or TSV row as the expected records hold it."""
    rec = dict(zip(KEYS, cells))
    for k in ("size", "attributes"):
        rec[k] = int(rec[k]) if rec[k] != "" else None
    for k in ("date_modified", "date_created", "date_accessed"):
        rec[k] = rec[k] or None
    return rec


class OutputForms(unittest.TestCase):
    """Each form, read back by a standard reader, gives exactly the records of the list."""

    def run_list(self, *args):
        r = sws("-config", FX.full_index, "-filelist", FX.list, *args, "file:")
        self.assertEqual(r.code, 0, r.err)
        self.assertEqual(r.err, "")
        return r

    def test_plain_is_one_escaped_path_a_line(self):
        r = self.run_list()
        self.assertTrue(r.text.endswith("\n") and "\r" not in r.text)
        self.assertEqual(r.lines, [e["filename"] for e in FX.expected_files()])

    def test_csv_reads_back_through_the_csv_module(self):
        r = self.run_list("-csv", *ALL_COLUMNS)
        rows = list(csv.reader(io.StringIO(r.text, newline="")))
        self.assertEqual(rows[0], TITLES)
        self.assertEqual([table_record(row) for row in rows[1:]], FX.expected_files())

    def test_tsv_splits_at_tabs_only_and_unescapes(self):
        r = self.run_list("-tsv", *ALL_COLUMNS)
        lines = r.text.split("\n")
        self.assertEqual(lines[-1], "")
        rows = [[unescape(c) for c in line.split("\t")] for line in lines[:-1]]
        self.assertEqual(rows[0], TITLES)
        self.assertEqual([table_record(row) for row in rows[1:]], FX.expected_files())

    def test_json_is_one_document_through_the_json_module(self):
        r = self.run_list("-json", *ALL_COLUMNS)
        doc = json.loads(r.text)
        got = doc["results"]
        self.assertTrue(all(g.pop("folder") is False for g in got))
        self.assertEqual(got, FX.expected_files())

    def test_json_marks_folders(self):
        r = sws("-filelist", FX.list, "-json", "folder:", "docs")
        self.assertEqual(r.code, 0, r.err)
        got = json.loads(r.text)["results"]
        self.assertEqual(got, [{"filename": FX.full("docs"), "folder": True}])

    def test_swl_reads_back_as_a_file_list_of_the_same_records(self):
        r = self.run_list("-swl")
        self.assertTrue(r.text.startswith("Filename,Size,Date Modified,Date Created,Attributes\r\n"))
        rows = list(csv.reader(io.StringIO(r.text, newline="")))
        expected = [[e["filename"], "" if e["size"] is None else str(e["size"])] for e in FX.expected_files()]
        self.assertEqual([row[:2] for row in rows[1:]], expected)
        by_name = {p.rsplit("/", 1)[1]: (dm, dc, attr) for p, _, dm, dc, attr in LIST_FILES}
        for row in rows[1:]:
            dm, dc, attr = by_name[row[0].rsplit(SEP, 1)[1]]
            self.assertEqual(row[2:], ["" if dm is None else str(dm), "" if dc is None else str(dc), str(attr)])
        # Fed back as a source, the export gives the same records as the list it came from.
        export = FX.write("export.swl", r.out)
        again = sws("-config", FX.full_index, "-filelist", export, "-json", *ALL_COLUMNS, "file:")
        self.assertEqual(again.code, 0, again.err)
        self.assertEqual([dict(g, filename=g["filename"].rsplit(SEP, 1)[1], path=None)
                          for g in json.loads(again.text)["results"]],
                         [dict(e, filename=e["filename"].rsplit(SEP, 1)[1], path=None, folder=False)
                          for e in FX.expected_files()])

    def test_columns_the_index_does_not_keep_are_empty(self):
        r = sws("-filelist", FX.list, "-json", *ALL_COLUMNS, "file:")
        self.assertEqual(r.code, 0, r.err)
        got = [dict(g) for g in json.loads(r.text)["results"]]
        for g in got:
            del g["folder"]
        self.assertEqual(got, FX.expected_files(full_index=False))

    def test_count_and_total_size(self):
        self.assertEqual(self.run_list("-count").text, "%d\n" % len(LIST_FILES))
        total = sum(s for _, s, _, _, _ in LIST_FILES if s is not None)
        self.assertEqual(self.run_list("-get-total-size").text, "%d\n" % total)

    def test_stats_go_to_standard_error_only(self):
        r = sws("-config", FX.full_index, "-filelist", FX.list, "-stats", "file:")
        self.assertEqual(r.code, 0, r.err)
        self.assertEqual(r.lines, self.run_list().lines)
        for pattern in (r"^build: \d+ ms$", r"^records: \d+ folders, \d+ files$", r"^search: \d+ ms$",
                        r"^sort: \d+ ms$", r"^peak memory: \d+ MiB$"):
            self.assertRegex(r.err, re.compile(pattern, re.M))


class Paging(unittest.TestCase):
    def test_offset_and_maximum_take_a_window_of_the_order(self):
        full = [e["filename"] for e in FX.expected_files()]
        cases = [(["-o", 2, "-n", 3], full[2:5]), (["-offset", 5], full[5:]), (["-max-results", 0], []),
                 (["-n", 1], full[:1]), (["-o", 99], []), (["-o", 6, "-n", 99], full[6:])]
        for args, expected in cases:
            with self.subTest(args=args):
                r = sws("-filelist", FX.list, *args, "file:")
                self.assertEqual(r.code, 0, r.err)
                self.assertEqual(r.lines, expected)


class Sorts(unittest.TestCase):
    def order(self, *args):
        r = sws("-filelist", FX.list, "-json", "-size", "-date-modified", "-extension", *args, "file:")
        self.assertEqual(r.code, 0, r.err)
        return json.loads(r.text)["results"]

    def test_each_column_in_both_directions(self):
        files = FX.expected_files()
        # Unknown values sort below every known one; ties fall back to name order.
        size_key = lambda e: -1 if e["size"] is None else e["size"]
        date_key = lambda e: e["date_modified"] or ""
        cases = [
            (["-sort", "size"], sorted(files, key=size_key)),
            (["-sort", "size-descending"], list(reversed(sorted(files, key=size_key)))),
            (["-sort", "Size", "-sort-descending"], list(reversed(sorted(files, key=size_key)))),
            (["-sort", "date-modified"], sorted(files, key=date_key)),
            (["-sort", "DateModified-descending"], list(reversed(sorted(files, key=date_key)))),
            (["-sort", "extension"], sorted(files, key=lambda e: e["extension"].casefold())),
            (["-sort", "name", "-sort-descending"], list(reversed(files))),
            (["-sort", "path"], sorted(files, key=lambda e: (e["path"].casefold(), e["name"].casefold()))),
        ]
        for args, expected in cases:
            with self.subTest(args=args):
                got = [g["filename"] for g in self.order(*args)]
                self.assertEqual(got, [e["filename"] for e in expected])


class Matching(unittest.TestCase):
    def names(self, *args):
        r = sws("-filelist", FX.list, *args)
        self.assertEqual(r.code, 0, r.err)
        return sorted(line.rsplit(SEP, 1)[1] for line in r.lines)

    def test_match_switches(self):
        cases = [
            (["report"], ["Report2.TXT", "report.txt"]),
            (["-case", "report"], ["report.txt"]),
            (["-whole-word", "report"], ["report.txt"]),
            (["-ww", "report2"], ["Report2.TXT"]),
            (["-regex", r"^report\d\.txt$"], ["Report2.TXT"]),
            (["-regex", "-case", r"^report\d?\.txt$"], ["report.txt"]),
            (["cafe"], ["café.txt"]),
            (["-diacritics", "cafe"], []),
            (["file:", "music"], []),
            (["-match-path", "file:", "music"], ["song.mp3"]),
            (["-path", "file:", "music"], ["song.mp3"]),
            (["-no-case", "-case", "REPORT.txt"], []),
            (["--", "-case"], []),
        ]
        for args, expected in cases:
            with self.subTest(args=args):
                self.assertEqual(self.names(*args), expected)

    def test_settings_file_gives_the_match_defaults_and_switches_override_them(self):
        config = FX.write("match.ini", b"[Sablewatch]\r\nmatch_case=1\r\n")
        self.assertEqual(self.names("-config", config, "Report2"), ["Report2.TXT"])
        self.assertEqual(self.names("-config", config, "report2"), [])
        self.assertEqual(self.names("-config", config, "-no-case", "report2"), ["Report2.TXT"])


class DatabaseFiles(unittest.TestCase):
    def test_save_db_then_db_and_the_own_index_give_the_same_answer(self):
        db = FX.path("saved.db")
        built = sws("-filelist", FX.list, "-save-db", db, "file:")
        self.assertEqual(built.code, 0, built.err)
        self.assertTrue(os.path.getsize(db) > 0)
        loaded = sws("-db", db, "-stats", "file:")
        self.assertEqual(loaded.code, 0, loaded.err)
        self.assertEqual(loaded.lines, built.lines)
        self.assertRegex(loaded.err, re.compile(r"^load: \d+ ms$", re.M))
        # The program's own index file, in the place the settings give it: searched as it stands.
        own = FX.path("own")
        os.makedirs(own, exist_ok=True)
        shutil.copy(db, os.path.join(own, "Sablewatch.db"))
        config = FX.write("own.ini", ("[Sablewatch]\r\ndb_location=%s\r\n" % native(own)).encode())
        mine = sws("-config", config, "file:")
        self.assertEqual(mine.code, 0, mine.err)
        self.assertEqual(mine.lines, built.lines)

    def test_folder_source_holds_the_tree(self):
        root = FX.path("tree")
        for d in ("a/b", "c"):
            os.makedirs(os.path.join(root, d), exist_ok=True)
        for f in ("a/one.txt", "a/b/two.txt", "c/three.dat", "four"):
            FX.write(os.path.join("tree", f), b"x" * len(f))
        r = sws("-folder", root, "-csv", "-size")
        self.assertEqual(r.code, 0, r.err)
        rows = list(csv.reader(io.StringIO(r.text, newline="")))[1:]
        expected = {native(os.path.join(dp, n)) for dp, ds, fs in os.walk(root) for n in ds + fs}
        expected.add(native(root))
        self.assertEqual({row[0] for row in rows}, expected)
        sizes = {row[0]: row[1] for row in rows}
        self.assertEqual(sizes[native(os.path.join(root, "a", "b", "two.txt"))], "11")

    @unittest.skipIf(WINDOWS, "Windows names can't hold a line end, a tab or a backslash")
    def test_names_with_line_ends_tabs_and_backslashes_survive_every_form(self):
        root = FX.path("odd")
        os.makedirs(root, exist_ok=True)
        names = ["line\nend", "tab\there", "back\\slash", "cr\rname", 'q"uote,comma']
        for n in names:
            FX.write(os.path.join("odd", n), b"")
        full = sorted(os.path.join(root, n) for n in names)
        plain = sws("-folder", root, "file:")
        self.assertEqual(sorted(plain.lines), full)
        self.assertEqual(len(plain.text.split("\n")) - 1, len(names))
        rows = list(csv.reader(io.StringIO(sws("-folder", root, "-csv", "file:").text, newline="")))
        self.assertEqual(sorted(r[0] for r in rows[1:]), full)
        tsv = sws("-folder", root, "-tsv", "-name", "file:").text.split("\n")[1:-1]
        self.assertEqual(sorted(unescape(line.split("\t")[0]) for line in tsv), full)
        doc = json.loads(sws("-folder", root, "-json", "file:").text)
        self.assertEqual(sorted(r["filename"] for r in doc["results"]), full)
        swl = sws("-folder", root, "-swl", "file:")
        self.assertEqual(swl.code, 0)
        self.assertIn("left out of the file list", swl.err)
        kept = list(csv.reader(io.StringIO(swl.text, newline="")))[1:]
        self.assertEqual(sorted(r[0] for r in kept), [p for p in full if "\n" not in p and "\r" not in p])

    @unittest.skipIf(WINDOWS, "names that are not UTF-8 exist only on Linux")
    def test_json_stays_valid_for_names_that_are_not_utf8(self):
        root = FX.path("bytes")
        os.makedirs(root, exist_ok=True)
        with open(os.path.join(root.encode(), b"bad\xffname"), "wb"):
            pass
        doc = json.loads(sws("-folder", root, "-json", "file:").out.decode("utf-8"))
        self.assertEqual([r["filename"] for r in doc["results"]], [os.path.join(root, "bad\ufffdname")])


class ExitStatuses(unittest.TestCase):
    """Each failure: its status, one line on standard error that says what and where, nothing on stdout."""

    def check(self, args, code, says):
        r = sws(*args)
        self.assertEqual(r.code, code, (args, r.err))
        if code == 0:
            return r
        self.assertEqual(r.out, b"")
        lines = r.err.splitlines()
        self.assertEqual(len(lines), 1, r.err)
        self.assertTrue(lines[0].startswith("sws: "), r.err)
        self.assertIn(says, lines[0])
        return r

    def test_bad_arguments(self):
        cases = [
            (["-bogus"], "-bogus"),
            (["-filelist"], "-filelist"),
            (["-n", "ten", "x"], "ten"),
            (["-o", "-3", "x"], "-3"),
            (["-sort", "colour", "x"], "colour"),
            (["-db", "x.db", "-folder", "."], "-db"),
            (["-csv", "-json", "x"], "-json"),
            (["-size", "x"], "column"),
            (["-count", "-get-total-size"], "-count"),
        ]
        for args, says in cases:
            with self.subTest(args=args):
                self.check(args, 1, says)

    def test_help(self):
        r = self.check(["-help"], 0, "")
        self.assertTrue(r.text.startswith("Usage: sws"))
        self.assertEqual(sws("-h").text, r.text)

    def test_sources_that_cannot_be_read(self):
        rnd = random.Random(12)
        noise = FX.write("noise.swl", bytes(rnd.getrandbits(8) for _ in range(1 << 16)))
        long_line = FX.path("long.swl")
        with open(long_line, "wb") as f:
            block = b"a" * (1 << 20)
            for _ in range(100):
                f.write(block)
        cases = [
            (["-filelist", FX.path("missing.swl")], native(FX.path("missing.swl"))),
            (["-filelist", FX.dir], "is a folder"),
            (["-filelist", noise], "no Filename column"),
            (["-filelist", long_line], "no Filename column"),
            (["-folder", FX.path("no-such-folder")], "folder not found"),
            (["-folder", FX.list], "is a file"),
            (["-ntfs", FX.path("no-such-volume")], "can't open the volume"),
            (["-db", FX.path("missing.db")], "not found"),
            (["-config", FX.path("missing.ini"), "x"], "settings file"),
        ]
        for args, says in cases:
            with self.subTest(args=args[:1]):
                self.check(args + ["x"], 2, says)

    def test_database_files_that_are_not_valid(self):
        good = FX.path("whole.db")
        self.assertEqual(sws("-filelist", FX.list, "-save-db", good, "x").code, 0)
        data = open(good, "rb").read()
        cases = {
            "truncated.db": data[: len(data) // 2],
            "header-only.db": data[:16],
            "empty.db": b"",
            "sqlite.db": b"SQLite format 3\x00" + bytes(4080),
            "zip.db": b"PK\x03\x04" + bytes(200),
        }
        for name, content in cases.items():
            with self.subTest(name=name):
                self.check(["-db", FX.write(name, content), "x"], 3, "not a valid database file")

    def test_no_results_is_success(self):
        r = self.check(["-filelist", FX.list, "nothing-is-called-this"], 0, "")
        self.assertEqual(r.out, b"")


class NtfsSource(unittest.TestCase):
    """-ntfs reads a volume image made by mkntfs and filled through an ntfs-3g mount: the records arrive with
    their sizes under a root named by the image, hard links under each of their names. The image is made
    here with the NTFS tests' script; a machine that can't make one fails this test rather than skip it."""

    @classmethod
    def setUpClass(cls):
        cls.image = FX.path("vol.img")
        script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "ntfs", "make-image.sh")
        subprocess.run(["bash", script, cls.image, "4096", "512"], check=True, stdout=subprocess.DEVNULL)

    def test_files_and_sizes_of_the_image(self):
        r = sws("-ntfs", native(self.image), "-csv", "-size", "file:")
        self.assertEqual(r.code, 0, r.err)
        rows = list(csv.reader(io.StringIO(r.text)))
        self.assertEqual(rows[0], ["Filename", "Size"])
        sizes = {row[0]: int(row[1]) for row in rows[1:]}
        root = native(self.image) + SEP
        want = {"docs/readme.txt": 12, "docs/reports/2020/q1.csv": 70000, "docs/reports/empty.txt": 0,
                "docs/name with spaces.txt": 5, "media/song.mp3": 3000, "docs/song-link.mp3": 3000,
                "media/picture.jpg": 2048}
        for rel, size in want.items():
            with self.subTest(rel=rel):
                self.assertEqual(sizes.get(root + rel.replace("/", SEP)), size)
        self.assertFalse([p for p in sizes if not p.startswith(root)])

    def test_a_file_that_is_not_a_volume(self):
        r = sws("-ntfs", FX.list, "x")
        self.assertEqual(r.code, 2)
        self.assertIn("not an NTFS volume", r.err)
        self.assertEqual(r.err.count("\n"), 1)


if __name__ == "__main__":
    FX = Fixture()
    try:
        unittest.main(argv=[sys.argv[0], "-v"])
    finally:
        shutil.rmtree(FX.dir, ignore_errors=True)
