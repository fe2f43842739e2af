#!/usr/bin/env python3
"""driver_test.py TOLVAN EXAMPLES: the stand-alone driver as a user meets it."""
import json
import math
import os
import pathlib
import pty
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from xml.etree import ElementTree

TOLVAN, EXAMPLES = (pathlib.Path(p).resolve() for p in sys.argv[1:3])
OATS = EXAMPLES / "oats"
MODEL = {"response": "y", "fixed": "variety*nitro", "random": "block/variety"}


def tolvan(*arguments, cwd=None, **more):
    return subprocess.run([TOLVAN, *map(str, arguments)], capture_output=True, text=True, cwd=cwd, timeout=120, **more)


class InAFolder(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def write(self, name, content):
        path = self.folder / name
        path.write_text(content if isinstance(content, str) else json.dumps(content))
        return path


class CommandLine(InAFolder):
    def test_help_and_version(self):
        for arguments in (["--help"], ["check", "--help"], ["grm", "--help"], ["fit", "--help"]):
            run = tolvan(*arguments)
            self.assertEqual(run.returncode, 0)
            self.assertIn("Exit codes", run.stdout)
        for option in ("--data", "--json", "-o", "-q", "-v", "--threads"):
            self.assertIn(option, run.stdout)
        run = tolvan("version")
        self.assertEqual(run.returncode, 0)
        self.assertRegex(run.stdout, r"^tolvan \d+\.\d+\.\d+")

    def test_usage_errors(self):
        request = self.write("request.json", {"model": {"response": "y"}})
        data = self.write("a.csv", "y\n1\n2\n")
        for arguments in ([], ["fly"], ["fit"], ["fit", request, "--no-such-option"], ["fit", request, "--threads", "0"],
                          ["fit", request, "--threads", "many"], ["fit", request, "-q", "-v"],
                          ["fit", request, "--data", "a.csv"], ["fit", request, "--data", f"=x"],
                          ["fit", request, "--data", f"a={data}", "--data", f"a={data}"]):
            run = tolvan(*arguments)
            self.assertEqual(run.returncode, 2, (arguments, run.stderr))
            self.assertEqual(run.stdout, "")
            self.assertNotEqual(run.stderr, "")


class Results(InAFolder):
    def test_the_same_fit_by_csv_and_by_data(self):
        by_file = tolvan("fit", OATS / "request.json", "--json", cwd=self.folder)  # from any folder
        self.assertEqual(by_file.returncode, 0, by_file.stderr)
        request = json.loads((OATS / "request.json").read_text())
        variables = request.pop("variables")
        del request["data_file"]
        described = self.write("described.json", {**request, "dataset": {"name": "oats", "variables": variables}})
        bare = self.write("bare.json", request)
        for path in (described, bare):
            by_data = tolvan("fit", path, "--json", "--data", f"oats={OATS / 'oats.csv'}", cwd=OATS)
            self.assertEqual(by_data.returncode, 0, by_data.stderr)
            if path == described:
                self.same_results(json.loads(by_file.stdout), json.loads(by_data.stdout))
            else:  # nitro is a number there
                self.assertIn("nitro: variate", by_data.stderr)

    def same_results(self, a, b):
        self.assertEqual(a["scalars"], b["scalars"])
        self.assertEqual(a["tables"], b["tables"])  # bit by bit: numbers are written so that they read back

    def test_labels_in_the_order_of_the_document(self):
        """another order of levels leaves the likelihood and moves the rows of the solutions"""
        labels = ["Victory", "Marvellous", "Golden_Rain"]
        request = {"model": MODEL, "options": {"extra": 5}, "dataset": [{"name": "oats", "variables": [
            {"name": "block", "field_type": "vt_string_factor"},
            {"name": "variety", "field_type": "vt_string_factor", "factor_labels": labels},
            {"name": "nitro", "field_type": "vt_string_factor"}, {"name": "y"}]}]}
        run = tolvan("fit", self.write("r.json", request), "--json", "--data", f"oats={OATS / 'oats.csv'}")
        self.assertEqual(run.returncode, 0, run.stderr)
        document = json.loads(run.stdout)
        self.assertAlmostEqual(document["scalars"]["SCALAR_LOGLIK"], -209.377941511, 6)
        columns = {c["name"]: c["values"] for c in document["tables"]["TABLE_SLN"]["column_info"]["columns"]}
        rows = list(zip(columns["LABEL"], columns["LVL"]))
        self.assertEqual([level for term, level in rows if term == "variety"], labels)

    def test_json_document(self):
        run = tolvan("fit", OATS / "request.json", "--json", "-q")
        self.assertEqual(run.returncode, 0)
        self.assertEqual(run.stderr, "")
        document = json.loads(run.stdout)
        self.assertEqual(list(document), ["status", "final_message", "scalars", "tables", "error_information"])
        self.assertLessEqual(document["status"], 0)
        self.assertIn("LogL Converged", document["final_message"])
        self.assertAlmostEqual(document["scalars"]["SCALAR_LOGLIK"], -209.377941511, 6)
        self.assertEqual(document["scalars"]["SCALAR_DF"], 60)
        columns = {c["name"]: c["values"] for c in document["tables"]["TABLE_VARCOMP"]["column_info"]["columns"]}
        for got, expected in zip(columns["SIGMA"], (214.477083127, 106.061805591, 177.083333214)):
            self.assertAlmostEqual(got, expected, delta=1e-4 * expected)
        self.assertEqual(document["error_information"]["terminate"], False)

    def test_streams_and_talk(self):
        normal = tolvan("fit", OATS / "request.json")
        self.assertIn("Variance components", normal.stdout)
        self.assertRegex(normal.stderr, r"iteration +1 +LogL")
        self.assertNotIn("\r", normal.stderr)
        self.assertNotIn("\x1b", normal.stdout + normal.stderr)
        quiet = tolvan("fit", OATS / "request.json", "-q")
        self.assertEqual(quiet.stderr, "")
        self.assertEqual(quiet.stdout, normal.stdout)
        verbose = tolvan("fit", OATS / "request.json", "-v", "--threads", "2")
        self.assertEqual(verbose.stdout, normal.stdout)
        self.assertIn(" s in all", verbose.stderr)

    def test_checking_alone(self):
        request = json.loads((OATS / "request.json").read_text())
        request.setdefault("options", {})["process_stage"] = "preprocess"
        request["data_file"]["name"] = str(OATS / "oats.csv")
        run = tolvan("fit", self.write("r.json", request))
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertRegex(run.stdout, r"(?m)^  block +random +6$")
        self.assertIn("nothing was fitted, as process_stage is preprocess", run.stdout)

    def test_a_request_with_a_byte_order_mark(self):
        request = json.loads((OATS / "request.json").read_text())
        del request["variables"], request["data_file"]
        path = self.folder / "marked.json"
        path.write_text("\ufeff" + json.dumps(request), encoding="utf-8")
        run = tolvan("fit", path, "--data", f"oats={OATS / 'oats.csv'}")
        self.assertEqual(run.returncode, 0, run.stderr)

    def test_on_a_terminal(self):
        for no_color, decorated in (("", True), ("1", False)):
            text = self.on_terminal({"NO_COLOR": no_color, "TERM": "xterm"})
            self.assertEqual("\x1b[" in text, decorated)
            self.assertRegex(text, r"\riteration +2 +LogL")

    def on_terminal(self, environment):
        leader, follower = pty.openpty()
        run = subprocess.Popen([TOLVAN, "fit", OATS / "request.json"], stdout=follower, stderr=follower,
                               env={**os.environ, **environment})
        os.close(follower)
        text = b""
        while True:
            try:
                piece = os.read(leader, 4096)
            except OSError:  # the other end is closed
                break
            if not piece:
                break
            text += piece
        os.close(leader)
        self.assertEqual(run.wait(timeout=60), 0)
        return text.decode()


class Check(InAFolder):
    def request(self, **more):
        request = json.loads((OATS / "request.json").read_text())
        request["data_file"]["name"] = str(OATS / "oats.csv")
        return {**request, **more}

    def test_report(self):
        run = tolvan("check", OATS / "request.json", cwd=self.folder)
        self.assertEqual(run.returncode, 0, run.stderr)
        for line in (r"  72 records, 72 in the analysis", r"  variety +factor +3 +0", r"  y +variate +0 +0 +103\.972 +53 +174",
                     r"  nitro: 4 levels, 18 records each", r"    0\.0, 0\.2, 0\.4, 0\.6", r"  mu +fixed +1",
                     r"  variety:nitro +fixed +12", r"  block:variety +random +18", r"  44 equations in all",
                     r"The request and the data were checked; nothing was fitted\."):
            self.assertRegex(run.stdout, f"(?m)^{line}$")
        self.assertIn("note: reading ", run.stderr)
        self.assertEqual(tolvan("check", OATS / "request.json", "-q").stderr, "")

    def test_sizes_are_those_of_the_fit(self):
        run = tolvan("check", OATS / "request.json", "--json", "-q")
        self.assertEqual(run.returncode, 0, run.stderr)
        tables = json.loads(run.stdout)["tables"]
        terms = {c["name"]: c["values"] for c in tables["TABLE_TERMS"]["column_info"]["columns"]}
        fitted = json.loads(tolvan("fit", OATS / "request.json", "--json", "-q").stdout)["tables"]
        self.assertNotIn("TABLE_TERMS", fitted)
        labels = next(c for c in fitted["TABLE_SLN"]["column_info"]["columns"] if c["name"] == "LABEL")["values"]
        sizes = {t: n for t, n in zip(terms["TERM"], terms["EQUATIONS"]) if n > 0}
        self.assertEqual(sizes, {t: labels.count(t) for t in labels})

    def test_data_of_all_kinds(self):
        rows = [f"{i % 3},{i % 30},{'NA' if i % 7 == 0 else i},5" for i in range(60)]
        data = self.write("d.csv", "f,g,x,y\n" + "\n".join(rows))
        integer = {"field_type": "vt_integer_factor"}
        request = {"dataset": {"name": "d", "variables": [
            {"name": "f", **integer}, {"name": "g", **integer}, {"name": "x"}, {"name": "y"}]},
            "model": {"response": "y", "fixed": "x", "random": "f+g"}}
        run = tolvan("check", self.write("r.json", request), "--data", f"d={data}")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertIn("warning: no variation in the response variable", run.stderr)
        x = [i for i in range(60) if i % 7 != 0]
        mean = f"{sum(x) / len(x):.6g}"
        for line in (r"  60 records, 51 in the analysis", f"  x +variate +9 +0 +{mean} +1 +59",
                     r"  g: 30 levels, 2 records each", r".*19, and 10 more",
                     r"The request and the data were checked, with \d warnings?; nothing was fitted\."):
            self.assertRegex(run.stdout, f"(?m)^{line}$")
        self.assertNotIn(" more\n", tolvan("check", self.folder / "r.json", "--data", f"d={data}", "-v").stdout)

    def test_standard_json(self):
        for more in ({}, {"options": {"process_stage": "all", "extra": 5}}, {"options": {}}):
            path = self.write("r.json", self.request(**more))
            run = tolvan("check", path, "--standard-json")
            self.assertEqual(run.returncode, 0, run.stderr)
            standard = json.loads(run.stdout)
            self.assertEqual(standard["model"]["fixed"]["terms"],
                             ["mu", "variety", "nitro", {"interaction": ["variety", "nitro"]}])
            self.assertEqual(standard.get("options", {}), more.get("options", self.request()["options"]))
            # a standard request asks for the same
            again = tolvan("check", self.write("again.json", standard), "--standard-json")
            self.assertEqual(again.stdout, run.stdout)

    def test_faults(self):
        unknown = self.request(model={"response": "y", "fixed": "colour"})
        for request, says in ((unknown, "colour"), (self.request(data_file={"name": "absent.csv"}), "absent.csv")):
            for option in ([], ["--standard-json"], ["--json"]):
                run = tolvan("check", self.write("r.json", request), *option)
                self.assertEqual(run.returncode, 3)
                self.assertIn(says, run.stderr)
                if option == ["--standard-json"]:
                    self.assertEqual(run.stdout, "")
                self.assertNotIn("were checked", run.stdout)
        # what was read before the fault is told
        several = self.request(model={"response": "y", "fixed": "variety"}, predict={"classify": "variety:block:none"})
        self.assertIn("103.972", tolvan("check", self.write("r.json", several)).stdout)
        for arguments in (["check"], ["check", "r.json", "--json", "--standard-json"], ["check", "r.json", "--threads", "2"]):
            self.assertEqual(tolvan(*arguments, cwd=self.folder).returncode, 2)


class Ainv(InAFolder):
    ROWS = "kid,dad,mum,generation\nx,s1,d1,2\ns1,,,1\ny,s1,NA,2\n"

    def test_report_and_files(self):
        pedigree = self.write("pedigree.csv", self.ROWS)
        output = self.folder / "a.giv"
        run = tolvan("ainv", pedigree, "-q", "-o", output)
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertEqual(run.stderr, "")
        report = dict(re.findall(r"^ *(\S.*?) {2,}(\S+)$", run.stdout, re.M))
        # d1 has no line of its own: it stands ahead of all; x has both parents, y one.
        self.assertEqual(report["Individuals"], "4")
        self.assertEqual([report["with two parents"], report["with one parent"], report["with none"], report["inbred"]],
                         ["1", "1", "2", "0"])
        self.assertAlmostEqual(float(report["log|A^-1|"]), 0.980829, 6)  # -ln 0.5 - ln 0.75
        self.assertEqual((self.folder / "a.giv.ids").read_text(), "1 d1 0\n2 s1 0\n3 x 0\n4 y 0\n")
        elements = {(int(i), int(j)): float(v) for i, j, v in map(str.split, output.read_text().splitlines())}
        expected = {(1, 1): 1.5, (2, 1): 0.5, (2, 2): 1 + 0.5 + 1 / 3, (3, 1): -1, (3, 2): -1, (3, 3): 2, (4, 2): -2 / 3, (4, 4): 4 / 3}
        self.assertEqual(elements.keys(), expected.keys())
        for place, value in expected.items():
            self.assertAlmostEqual(elements[place], value, 12)

    def test_columns_and_options(self):
        by_name = self.write("turned.csv", "mum,kid,sex,dad\nd1,x,1,s1\n,s1,0,\n,d1,1,\n")
        run = tolvan("ainv", by_name, "--id", "kid", "--male", "4", "--female", "mum", "--json")
        self.assertEqual(run.returncode, 0, run.stderr)
        document = json.loads(run.stdout)
        self.assertEqual(document["scalars"]["SCALAR_INVERTED"], 1)
        names = [column["values"] for column in document["tables"]["TABLE_AINV_UID"]["column_info"]["columns"]]
        self.assertEqual(names, [["s1", "d1", "x"]])
        linked = tolvan("ainv", by_name, "--id", "kid", "--male", "dad", "--female", "mum", "--sex", "sex", "-q")
        self.assertEqual(linked.returncode, 0, linked.stderr)
        bare = self.write("bare.csv", "1,0,0\n2,0,0\n3,1,2\n")
        self.assertRegex(tolvan("ainv", bare, "--no-header").stdout, r"Individuals +3\n")

    def test_faults(self):
        loop = self.write("loop.csv", "id,s,d\na,b,0\nb,a,0\n")
        run = tolvan("ainv", loop)
        self.assertEqual((run.returncode, run.stdout), (3, ""))
        self.assertIn("Unable to sort pedigree so all parents are before their progeny.", run.stderr)
        for arguments in (["ainv", loop, "--id", "name"], ["ainv", loop, "--male", "4"], ["ainv", loop, "--sex", "s"],
                          ["ainv", self.folder / "none.csv"]):
            run = tolvan(*arguments)
            self.assertEqual((run.returncode, run.stdout), (3, ""), arguments)
            self.assertNotEqual(run.stderr, "")
        self.assertEqual(tolvan("ainv").returncode, 2)


class Grm(InAFolder):
    # counts of 3 markers, one of them missing once
    ROWS = "id a b c\nx 0 1 2\ny 1 1 0\nz 2 NA 1\n"

    def test_report_and_files(self):
        output = self.folder / "g.grm"
        run = tolvan("grm", self.write("m.grr", self.ROWS), "-q", "-o", output, "--diagonal", "0.5")
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        report = dict(re.findall(r"^ *(\S.*?) {2,}(\S+)$", run.stdout, re.M))
        self.assertEqual([report[key] for key in ("Genotypes", "Markers", "that enter", "Missing values")], ["3", "3", "3", "1"])
        # p = 0.5 throughout: Z holds -1 0 1, 0 0 -1, 1 0 0, divided by 1.5
        lines = [[float(x) for x in line.split()] for line in output.read_text().splitlines()]
        expected = [[2 / 1.5 + 0.5], [-1 / 1.5, 1 / 1.5 + 0.5], [-1 / 1.5, 0, 1 / 1.5 + 0.5]]
        for got, row in zip(lines, expected, strict=True):
            for a, b in zip(got, row, strict=True):
                self.assertAlmostEqual(a, b, 12)
        self.assertEqual((self.folder / "g.grm.ids").read_text(), "1 x\n2 y\n3 z\n")
        self.assertAlmostEqual(float(report["Mean diagonal"]), 4 / 4.5 + 0.5, 6)
        # what was written is read as a matrix
        data = self.write("d.csv", "line,y\n1,3\n2,5\n3,4.5\n1,3.5\n2,4\n3,4.25\n")
        request = self.write("r.json", {"data_file": {"name": str(data), "skip": 1}, "variables": [
            {"name": "line", "field_type": "vt_integer_factor_1_to_n", "number_of_levels": 3}, {"name": "y"}],
            "grm_file": {"name": str(output)}, "model": {"response": "y", "random": f"vm(line,{output})"}})
        self.assertIn(tolvan("fit", request).returncode, (0, 4))

    def test_plink_and_options(self):
        example = EXAMPLES / "markers" / "geno.bed"
        run = tolvan("grm", example, "--range", "1:200", "--method", "2", "--json")
        self.assertEqual(run.returncode, 0, run.stderr)
        document = json.loads(run.stdout)
        self.assertEqual([document["scalars"][f"SCALAR_GRM_{key}"] for key in ("GENOTYPES", "MARKERS", "SCALE")], [80, 200, 200])
        bare = self.write("m.mat", "0 1 2\n1 1 0\n2 . 1\n")
        run = tolvan("grm", bare, "--no-label", "--markers", "3", "--centre", "1", "--divisor", "2", "-q")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertRegex(run.stdout, r"Largest diagonal +1\.0000")

    def test_several_files_are_one_set_of_markers(self):
        parts = [self.write("c1.grr", "id a b\nx 0 1\ny 1 1\nz 2 NA\n"), self.write("c2.grr", "id c\nz 1\nx 2\ny 0\n")]
        found = []
        for files in ([self.write("m.grr", self.ROWS)], parts):
            run = tolvan("grm", *files, "--json", "-o", self.folder / "g.grm")
            self.assertEqual(run.returncode, 0, run.stderr)
            found.append((self.folder / "g.grm").read_text())
            self.assertEqual(json.loads(run.stdout)["scalars"]["SCALAR_GRM_MARKERS"], 3)
        for one, all_parts in zip(found[0].split(), found[1].split(), strict=True):
            self.assertAlmostEqual(float(one), float(all_parts), 12)
        run = tolvan("grm", *parts, self.write("c3.grr", "id d\nz 1\nx 2\n"))
        self.assertEqual(run.returncode, 3)
        self.assertIn("the genotype y of", run.stderr)

    def test_faults(self):
        rows = self.write("m.grr", self.ROWS + "x 0 0 0\n")
        for code, arguments, says in ((3, [rows], "the genotype x stands twice in"), (3, [self.folder / "no.grr"], "failed to open GRR file"),
                                      (3, [self.write("n.mkr", "a 1\n")], "please indicate the expected number of regressors"),
                                      (2, [rows, "--range", "5"], "--range"), (2, [rows, "--method", "-1"], "--method"), (2, [], "markers")):
            run = tolvan("grm", *arguments)
            self.assertEqual((run.returncode, run.stdout), (code, ""), run.stderr)
            self.assertIn(says, run.stderr)


class FilesOfARequest(InAFolder):
    def test_all_are_named_as_seen_from_the_request(self):
        self.write("d.csv", "line,y\n" + "".join(f"{line},{y}\n" for line, y in zip("123" * 4, (3, 5, 4, 3.5, 4, 4.5, 2.5, 5.5, 4, 3, 6, 5))))
        self.write("p.csv", "1,0,0\n2,0,0\n3,1,2\n")
        self.write("g.grm", "1\n0 1\n0.5 0.5 1\n")
        self.write("c1.grr", "id a b\n1 0 1\n2 1 1\n3 2 0\n")
        self.write("c2.grr", "id c\n3 1\n2 2\n1 0\n")
        found = []
        for key, entry in (("pedigree_file", {"name": "p.csv", "type": "ft_csv"}), ("grm_file", {"name": "g.grm"}),
                           ("marker_file", {"name": "G", "file": ["c1.grr", "c2.grr"], "mdfoffset": 0.5})):
            request = self.write("r.json", {"data_file": {"name": "d.csv", "skip": 1}, "variables": [
                {"name": "line", "field_type": "vt_integer_factor_1_to_n", "number_of_levels": 3}, {"name": "y"}],
                key: entry, "model": {"response": "y", "random": f"vm(line,{entry['name']})"}})
            run = tolvan("fit", request, "--json")
            self.assertIn(run.returncode, (0, 4), run.stderr)
            found.append(json.loads(run.stdout)["scalars"]["SCALAR_LOGLIK"])
        self.assertAlmostEqual(found[0], found[1], 7)


class Failures(InAFolder):
    def refused(self, code, *arguments, says=""):
        run = tolvan("fit", *arguments)
        self.assertEqual(run.returncode, code, run.stderr)
        self.assertIn("error: ", run.stderr)
        self.assertIn(says, run.stderr)
        self.assertEqual(run.stdout, "")
        document = json.loads(tolvan("fit", *arguments, "--json").stdout)
        self.assertGreater(document["status"], 0)
        self.assertTrue(document["error_information"]["terminate"])
        texts = [m.get("message", "") for m in document["error_information"]["messages"]]
        self.assertTrue(any(says in t for t in texts), texts)

    def test_files_that_are_not_there(self):
        self.refused(3, self.folder / "none.json", says="none.json")
        self.refused(3, self.folder, says="folder")
        request = json.loads((OATS / "request.json").read_text())
        self.refused(3, self.write("r.json", request), says="oats.csv")  # the data file is sought beside the request
        self.refused(3, self.write("m.json", {"model": MODEL}), "--data", f"a={self.folder / 'none.csv'}", says="none.csv")

    def test_malformed_requests(self):
        for number, text in enumerate(("", "{", "[1,2", "{\"model\":}", "nonsense", "\x00", "[" * 100000, "[]", "3")):
            self.refused(3, self.write(f"r{number}.json", text))
        self.refused(3, self.write("empty.json", {}), says="model")
        lines = self.write("lines.json", '{"model": {\n  "response": "y"\n  "fixed": "mu"}}')
        self.refused(3, lines, says=f"line 3, column 3 of {lines}")

    def test_data_under_another_name(self):
        request = self.write("r.json", {"model": {"response": "y"}, "dataset": {"name": "d", "variables": [{"name": "y"}]}})
        self.refused(3, request, "--data", f"D={self.write('d.csv', 'y' + chr(10) + '1' + chr(10))}",
                     says="no CSV file was given for the dataset d, and no dataset entry of the request is called D")

    def test_data_in_another_encoding(self):
        path = self.folder / "latin.csv"
        path.write_bytes("a,y\nSmørgås,1\nb,2\nSmørgås,4\nb,3\n".encode("latin-1"))
        run = tolvan("check", self.write("r.json", {"model": {"response": "y", "random": "a"}}), "--data", f"d={path}")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertIn("Smørgås, b", run.stdout)
        self.assertIn("latin.csv is not UTF-8, it is taken as Windows-1252", run.stderr)

    def test_bad_data(self):
        request = self.write("r.json", {"model": {"response": "y"}})
        for text, says in (("y\n1\nx\n", "y"), ("y,x\n1\n", "line 2"), ("", "empty"), ("y\n", "no record")):
            self.refused(3, request, "--data", f"d={self.write('d.csv', text)}", says=says)

    def test_not_converged(self):
        request = json.loads((OATS / "request.json").read_text())
        request["options"] = {"maxiterations": 2}
        request["data_file"]["name"] = str(OATS / "oats.csv")
        run = tolvan("fit", self.write("r.json", request))
        self.assertEqual(run.returncode, 4, run.stderr)
        self.assertIn("Variance components", run.stdout)
        self.assertIn("not converged", run.stdout)

    def test_results_that_can_not_be_written(self):
        if not os.path.exists("/dev/full"):
            self.skipTest("no device that is always full")
        with open("/dev/full", "w") as full:
            run = subprocess.run([TOLVAN, "fit", OATS / "request.json"], stdout=full, stderr=subprocess.PIPE, text=True)
        self.assertEqual(run.returncode, 6)
        self.assertIn("unable to write the results", run.stderr)

    def test_output_folder(self):
        out = self.folder / "out" / "deeper"
        run = tolvan("fit", OATS / "request.json", "-o", out)
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertLessEqual({f"request.{e}" for e in ("tlv", "res", "sln", "yht", "vvp", "veo", "rsv", "tsv", "tvs")},
                             {path.name for path in out.iterdir()})
        self.assertIn("LogL Converged", (out / "request.tlv").read_text())
        run = tolvan("fit", OATS / "request.json", "--resume", out / "request.rsv", "-o", out)
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertIn("restart values taken from", run.stderr)
        run = tolvan("fit", OATS / "request.json", "--resume", out / "none.rsv", "-o", out)
        self.assertEqual(run.returncode, 3, run.stderr)
        self.assertIn("failed to find", run.stderr)
        self.write("in_the_way", "")
        run = tolvan("fit", OATS / "request.json", "-o", self.folder / "in_the_way" / "out")
        self.assertEqual(run.returncode, 6)


class Pages(InAFolder):
    """--html: one page that needs nothing beside itself"""

    SVG = "svg"

    def page(self, name, *arguments):
        path = self.folder / name
        run = tolvan("fit", *arguments, "--html", path)
        self.assertEqual(run.returncode, 0, run.stderr)
        text = path.read_text()
        for reaching_out in ("http:", "https:", "src=", "href=", "@import", "url(", "<script"):
            self.assertNotIn(reaching_out, text)
        root = ElementTree.fromstring(text)  # well-formed
        figures = {svg.get("aria-label"): svg for svg in root.iter(self.SVG)}
        for title, svg in figures.items():
            drawn = [e for e in svg.iter() if e.get("class") in ("line", "point", "bar") or e.get("fill")]
            self.assertTrue(drawn, title)
            x, y, width, height = map(float, svg.get("viewBox").split())
            for e in svg.iter():
                for key, most in (("x", width), ("cx", width), ("x1", width), ("x2", width), ("y", height), ("cy", height),
                                  ("y1", height), ("y2", height)):
                    if e.get(key):
                        self.assertTrue(-0.01 <= float(e.get(key)) <= most + 0.01, (title, e.attrib))
        return text, root, figures

    def test_plain_fit(self):
        text, root, figures = self.page("oats.html", OATS / "request.json")
        self.assertEqual(list(figures), ["Log-likelihood by iteration", "Variance parameters by iteration",
                                         "Residuals against fitted values", "Normal quantiles", "Histogram of residuals"])
        headings = [h.text for h in root.iter("h2")]
        self.assertEqual(headings, ["The model", "Variance components", "Convergence", "Fixed effects", "Largest random effects",
                                    "Residuals"])
        for words in ("The fit converged.", "The response is y.", "block:variety", "177.08", "LogL -209.378"):
            self.assertIn(words, text)
        self.assertEqual(len(list(figures["Residuals against fitted values"].iter("circle"))), 72)
        bars = [float(r.get("height")) for r in figures["Histogram of residuals"].iter("rect") if r.get("class") == "bar"]
        self.assertGreater(sum(bars), 0)

    def field(self):
        """a field of 8 x 10 plots with a trend, one plot missing, and a name that HTML must escape"""
        lines = ["row,col,y"]
        for r in range(8):
            for c in range(10):
                y = 10 + 0.4 * r + math.sin(1.7 * r * c) + math.cos(3.1 * c + r)
                lines.append(f"{r + 1},{c + 1},{'NA' if (r, c) == (3, 4) else round(y, 4)}")
        self.write("field.csv", "\n".join(lines) + "\n")
        self.write("field.json", json.dumps({
            "title": "Plots <8 & 10>",
            "dataset": {"name": "f", "variables": [
                {"name": "row", "field_type": "vt_integer_factor_1_to_n", "number_of_levels": 8},
                {"name": "col", "field_type": "vt_integer_factor_1_to_n", "number_of_levels": 10}, {"name": "y"}]},
            "model": {"response": "y", "fixed": "mu", "sparse": "mv", "residual": "ar1(row):ar1(col)"},
            "options": {"maxiterations": 40}}))
        return self.folder / "field.json", "--data", f"f={self.folder / 'field.csv'}"

    def test_spatial_fit(self):
        text, root, figures = self.page("field.html", *self.field())
        self.assertIn("Plots &lt;8 &amp; 10&gt;", text)
        field = next(svg for title, svg in figures.items() if title.startswith("Residuals in the field"))
        cells = [r.get("fill") for r in field.iter("rect") if r.get("fill")]
        self.assertEqual(len(cells), 80)
        self.assertEqual(cells.index("#d8d8d8"), 3 * 10 + 4)  # the missing plot, rows from the first
        variogram = next(svg for title, svg in figures.items() if title.startswith("Sample variogram"))
        self.assertEqual(len([r for r in variogram.iter("rect") if r.get("fill")]), 5 * 6)

    def test_cross_validation_and_imputation(self):
        request, *data = self.field()
        document = json.loads(pathlib.Path(request).read_text())
        document["model"]["random"] = "ar1v(row)"
        document["options"] = {"maxiterations": 40, "kcv": 4, "impute": 3}
        document["model"]["residual"] = "idv(units)"
        request.write_text(json.dumps(document))
        text, root, figures = self.page("more.html", request, *data)
        self.assertIn("averages over rounds of imputation", text)
        self.assertIn("Effects of the fit against those predicted without their data", figures)
        self.assertIn("k-fold Cross Validation for", text)
        printed = tolvan("fit", request, *data).stdout
        self.assertIn("k-fold Cross Validation for", printed)
        self.assertIn("Variance parameter summary from 3 iterations", printed)

    def test_pages_that_can_not_be_written(self):
        run = tolvan("fit", OATS / "request.json", "--html", self.folder / "none" / "page.html")
        self.assertEqual(run.returncode, 6)
        self.assertIn("unable to write the page", run.stderr)


class Interrupts(InAFolder):
    """a fit that takes some seconds, on crossed random effects"""

    def setUp(self):
        super().setUp()
        rows, levels, seed, lines = 10000, 600, 1, ["a,b,y"]
        for _ in range(rows):
            seed = (seed * 1103515245 + 12345) % 2**31
            a, b = seed // 7 % levels, seed // 10007 % levels
            lines.append(f"a{a},b{b},{(a * 37 % 101) / 50 + (b * 53 % 97) / 60 + seed / 2**31:.6f}")
        data = self.write("d.csv", "\n".join(lines) + "\n")
        request = self.write("r.json", {"model": {"response": "y", "random": "a+b"},
                                        "options": {"extra": 300, "maxiterations": 400}})
        self.run_ = subprocess.Popen([TOLVAN, "fit", request, "--json", "--data", f"d={data}"], text=True,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     preexec_fn=lambda: signal.signal(signal.SIGINT, signal.default_int_handler))
        self.addCleanup(self.run_.kill)
        for line in self.run_.stderr:
            if line.startswith("iteration"):
                break

    def end(self):
        out, err = self.run_.communicate(timeout=300)
        return self.run_.returncode, json.loads(out), err

    def test_once_finishes_and_reports(self):
        self.run_.send_signal(signal.SIGINT)
        code, document, err = self.end()
        self.assertIn("finishing after this iteration", err)
        self.assertIn(code, (0, 5))  # 0: it had converged by then
        self.assertEqual(document["status"], -5)
        self.assertIn("TABLE_VARCOMP", document["tables"])
        self.assertLess(len(document["tables"]["TABLE_TRACE"]["column_info"]["columns"][0]["values"]), 300)

    def test_twice_stops(self):
        self.run_.send_signal(signal.SIGINT)
        time.sleep(0.01)
        self.run_.send_signal(signal.SIGINT)
        code, document, _ = self.end()
        # The second may come too late to matter: then the first was obeyed.
        if document["status"] > 0:
            self.assertEqual(code, 5)
            self.assertTrue(document["error_information"]["terminate"])
        else:
            self.assertIn(code, (0, 5))


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v", *sys.argv[3:]])
