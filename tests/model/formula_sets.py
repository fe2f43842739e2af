"""Formulas read by recursive descent with set algebra, and the arguments of model functions; for derive_model_cases.py."""
import itertools
import re


class Refused(Exception):
    pass


# ---- formulas: a list of (drop, [factor, ...]); a factor is a name or a Call

class Call:
    def __init__(self, name, arguments, named):
        self.name, self.arguments, self.named = name, arguments, named


TOKEN = re.compile(r"\s*(?:([^\W\d][\w.]*|\d+(?:\.\d+)?(?:e-?\d+)?|\.\d+)|('[^']*'|\"[^\"]*\")|(.))")


def tokens(text):
    out, at = [], 0
    while at < len(text):
        m = TOKEN.match(text, at)
        if not m or m.end() == at:
            break
        at = m.end()
        out.append(m.group(1) or m.group(2) or m.group(3))
    return [t for t in out if t.strip()]


class Reader:
    """sum := product (('+' | '-' | nothing) product)*; product := nest ('*' nest)*; nest := cross ['/' cross]; cross := atom (':' atom)*"""

    def __init__(self, text):
        self.t, self.i = tokens(text), 0

    def peek(self):
        return self.t[self.i] if self.i < len(self.t) else None

    def take(self, wanted=None):
        token = self.peek()
        if token is None or (wanted and token != wanted):
            raise Refused(f"expected {wanted}")
        self.i += 1
        return token

    def sum(self):
        out, drop = [], False
        while self.peek() in ("+", "-"):
            drop = self.take() == "-" or drop
        while True:
            out += [(drop or d, f) for d, f in self.product()]
            if self.peek() in (None, ")", ",", "|"):
                return out
            drop = False
            while self.peek() in ("+", "-"):
                drop = self.take() == "-" or drop

    def product(self):
        parts = [self.nest()]
        while self.peek() == "*":
            self.take()
            parts.append(self.nest())
        out = []
        for order in range(1, len(parts) + 1):
            for chosen in itertools.combinations(parts, order):
                for terms in itertools.product(*chosen):
                    out.append((any(d for d, _ in terms), [f for _, fs in terms for f in fs]))
        return out

    def nest(self):
        left = self.cross()
        if self.peek() != "/":
            return left
        self.take()
        right = self.cross()
        return left + [(a or b, f + g) for a, f in left for b, g in right]

    def cross(self):
        out = self.atom()
        while self.peek() == ":":
            self.take()
            right = self.atom()
            out = [(a or b, f + g) for a, f in out for b, g in right]
        return out

    def atom(self):
        if self.peek() == "(":
            self.take()
            inner = self.sum()
            self.take(")")
            return inner
        name = self.take()
        if self.peek() == "(" and re.match(r"[^\W\d]", name):
            return [(False, [self.call(name)])]
        return [(False, [name.strip("'\"")])]

    def call(self, name):
        """Arguments stay text: what they are depends on the function."""
        self.take("(")
        arguments, named, depth, piece = [], {}, 0, []

        def close(piece):
            text = "".join(piece)
            m = re.match(r"(\w+)=(.*)", text, re.S)
            if m:
                named[m.group(1)] = m.group(2)
            elif text:
                arguments.append(text)
        while True:
            token = self.take()
            if token == ")" and depth == 0:
                close(piece)
                return Call(name, arguments, named)
            if depth == 0 and (token == "," or (token == "|" and name == "dsum")):
                close(piece)
                piece = []
                continue
            depth += token in "([" and len(token) == 1
            depth -= token in ")]" and len(token) == 1
            piece.append(token)


def number(text):
    try:
        value = float(text)
    except (TypeError, ValueError):
        return None
    return int(value) if value == int(value) and not re.search(r"[.eE]", str(text)) else value


def shown(x):
    return f"{x:g}" if isinstance(x, float) else str(x)


def value_of(text):
    """A vector, a number, a logical or a name."""
    if isinstance(text, list):
        return text
    text = text.strip()
    if text.startswith("["):
        depth, piece, out = 0, "", []
        for c in text[1:-1] + ",":
            if c == "," and depth == 0:
                out.append(value_of(piece))
                piece = ""
                continue
            depth += c == "["
            depth -= c == "]"
            piece += c
        return out
    n = number(text)
    return text.strip("'\"") if n is None else n


def value_text(v):
    return "[" + ",".join(value_text(e) for e in v) + "]" if isinstance(v, list) else shown(v)


# ---- functions: the arguments in their order, those that names leave out

WITH_INIT = ("idv idh ar1 ar1v ar1h ar2 ar2v ar2h ar3 ar3v ar3h sar sarv sarh sar2 sar2v sar2h ma1 ma1v ma1h ma2 ma2v ma2h "
             "arma armav armah cor corv corh corg corgv corgh diag us").split()
ONE_WAY = "exp expv exph gau gauv gauh lvr lvrv lvrh".split()
PLANE = ("iexp iexpv iexph aexp aexpv aexph igau igauv igauh agau agauv agauh ieuc ieucv ieuch ilv ilvv ilvh sph sphv sphh "
         "cir cirv cirh").split()
ARGUMENTS = {f: ["variable_name"] for f in "vect con lin grp id offset".split()}
ARGUMENTS.update({f: ["variable_name", "init"] for f in WITH_INIT})
ARGUMENTS.update({f: ["x", "init", "dist"] for f in ONE_WAY})
ARGUMENTS.update({f: ["x", "y", "init"] for f in PLANE})
ARGUMENTS.update({"mtrn": ["x", "y", "phi", "nu", "delta", "alpha", "lambda"]})
ARGUMENTS.update({f: ARGUMENTS["mtrn"] + ["init"] for f in ("mtrnv", "mtrnh")})
ARGUMENTS.update({f: ["variable_name", "b", "init"] for f in ("corb", "corbv", "corbh")})
ARGUMENTS.update({f: ["variable_name", "k", "init"] for f in "chol cholc ante sfa facv fa rr".split()})
ARGUMENTS.update(pow=["variable_name", "p", "offset"], pol=["variable_name", "t"], leg=["variable_name", "t"],
                 spl=["variable_name", "k"], dev=["variable_name", "init"], at=["variable_name", "lvls"],
                 sat=["variable_name", "lvls"], fac=["x", "y"], str=["form", "vmodel"], zero=["k"],
                 vm=["variable_name", "source", "singG", "invert", "ldet"], ide=["variable_name", "source"],
                 ric=["variable_name", "source", "singG", "init"], dsum=["model", "cond", "levels"],
                 uni=["variable_name", "k", "n"])
ARGUMENTS["and"] = ["variable_name", "times"]
NOT_NAMED = {"dist"}
ONLY_IN = {"vm": ["random"], "offset": ["fixed"]}
STRUCTURES = (set(WITH_INIT) | set(ONE_WAY) | set(PLANE) |
              set("id mtrn mtrnv mtrnh corb corbv corbh chol cholc ante sfa facv fa rr vm ide".split()))
KINDS = {"lin": 1, "con": 2, "spl": 4, "fac": 6, "pol": 8, "uni": 10, "dev": 11, "and": 13, "leg": 14, "pow": 31, "vect": 33,
         "zero": 49}


def arguments_of(call):
    """By name, as text; and the name of the call."""
    names = ARGUMENTS.get(call.name)
    if names is None or len(call.arguments) + len(call.named) > len(names):
        raise Refused(call.name)
    given = dict(zip(names, call.arguments))
    for k, v in call.named.items():
        if k not in names or k in given:
            raise Refused(f"{k} of {call.name}")
        given[k] = v
    written, gap = [], False
    for k in names:
        if k not in given or k in NOT_NAMED or (call.name == "dev" and k == "init"):
            gap = True
            continue
        text = value_text(value_of(given[k])) if k not in ("form", "vmodel") else given[k]
        if k in ("variable_name", "x", "y") and re.match(r"\w+\(", text):
            text = arguments_of(Reader(text).sum()[0][1][0])[1]
        written.append(f"{k}={text}" if gap else text)
    return given, f"{call.name}({','.join(written)})"
