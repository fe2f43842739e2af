// A shell script in the place of a user's program that forms a structure.
#pragma once

namespace tolvan {

// G = a I + b (J + 2 diag(1, 2, 3)) of order 3 with parameters a and b, read from the file in the first
// argument.
inline constexpr const char* own_script = R"(awk -v form="$2" '
function d(x,  s) { s = sprintf("%14.6E", x); sub("E", "D", s); return s }
NR == 1 { head = $0 }
NR == 2 { a = substr($0, 1, 14); b = substr($0, 15, 14); gsub("D", "E", a); gsub("D", "E", b); a += 0; b += 0
  print head; print $0
  if (form == "sparse") {
    for (i = 1; i <= 3; ++i) for (j = 1; j <= i; ++j) print i, j, (i == j ? a + b * (1 + 2 * i) : b), (i == 3 && j == 3 ? 1 : 0)
    print "1 1 1.0 0"; print "2 2 1.0 0"; print "3 3 1.0 1"
    for (i = 1; i <= 3; ++i) for (j = 1; j <= i; ++j) print i, j, (i == j ? 1 + 2 * i : 1), (i == 3 && j == 3 ? 1 : 0)
  } else {
    print d(a + 3 * b) d(b) d(a + 5 * b) d(b) d(b) d(a + 7 * b)
    print d(1) d(0) d(1) d(0) d(0) d(1)
    print d(3) d(1) d(5) d(1) d(1) d(7)
  }
}' "$1" > )";

}  // namespace tolvan
