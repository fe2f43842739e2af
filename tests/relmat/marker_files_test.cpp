// Files of markers in every form, and what they are told of.
#include "relmat/marker_files.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "base/files.h"
#include "relmat/marker_tables.h"

namespace tolvan_test {
namespace {

constexpr Form by_means{""};

// Codes -1, 0, 1 are no counts, and neither is -1 missing in them nor 9 among other numbers.
TEST(MarkerFiles, WhatIsMissing)
{
  struct Row {
    const char* file;
    const char* values;
    long missing;
    bool coded;
  };
  const Row rows[] = {
      {"a.grr", "0 1 2 -1 9 NA", 3, true},   {"b.grr", "0 1 -1 1 0 1", 0, false}, {"c.grr", "0 1 2 -1 9 3", 0, false},
      {"d.mkr", "0 1 2 -1 9 3", 3, true},    {"e.mkr", "0 1 -1 -1 0 1", 0, false}, {"f.mkr", "0 1.5 2 -1 9 5", 3, true},
      {"g.grr", "0 1.5 2 -1 9 *", 1, false}, {"h.mat", "0 1 1 9 . na", 3, true},
  };
  const TempFolder folder;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.file);
    Made made;
    ASSERT_TRUE(made.get(folder.file(row.file, text("id 1 2 3 4 5 6\na ", row.values, "\nb 1 0 1 1 1 1\nc 0 1 0 0 0 0\n")),
                         R"("header":true)"))
        << made.messages;
    EXPECT_EQ(made.model.data.coded, row.coded);
    EXPECT_EQ(made.model.summary.missing, row.missing);
    const std::string words = text(row.missing, " missing Regressor values (");
    EXPECT_EQ(made.messages.find(words) != std::string::npos, row.missing > 0) << made.messages;
  }
}

// One table, written in all ways.
TEST(MarkerFiles, FormsOfText)
{
  const TempFolder folder;
  const Table t = random_counts(6, 8, 21);
  const auto cell = [&](std::size_t i, std::size_t j, const char* none) {
    return std::isnan(t.at(i, j)) ? std::string(none) : text(t.at(i, j));
  };
  std::string turned = "chr,snp,pos", by_cell = "snp value id\n", no_labels, commas = "id,sex,8\n", numbered = "8\n";
  for (std::size_t i = 0; i < t.g; ++i) turned += "," + label(i);
  for (std::size_t j = 0; j < t.r; ++j) {
    turned += text("\n1,", marker(j), ",", j);
    for (std::size_t i = 0; i < t.g; ++i) turned += "," + cell(i, j, "");
  }
  turned += "\n";
  for (std::size_t i = 0; i < t.g; ++i) {
    for (std::size_t j = 0; j < t.r; ++j) {
      if (!std::isnan(t.at(i, j)) || j == 2) by_cell += text(marker(j), "\t", cell(i, j, "."), " ", label(i), "\n");
      no_labels += cell(i, j, "*") + (j + 1 < t.r ? "\t" : "\r\n");
    }
    commas += text("\"", label(i), "\",1");
    for (std::size_t j = 0; j < t.r; ++j) commas += text(" , ", cell(i, j, ""));
    commas += "\n";
    numbered += label(i);
    for (std::size_t j = 0; j < t.r; ++j) numbered += text("  ", cell(i, j, "9"));
    numbered += "\n";
  }
  const std::vector<double> expected = plain_grm(t, by_means, true);
  const std::pair<std::string, const char*> files[] = {
      {folder.file("turned.mkr", turned), R"("snpname":"snp","cskip":2)"},
      {folder.file("cells.mkr", by_cell), R"("snpname":"snp","gidname":"id")"},
      {folder.file("bare.mat", no_labels), R"("nokey":true,"markers":8)"},
      {folder.file("commas.mkr", commas), R"("cskip":1,"header":true,"gidname":"id")"},
      {folder.file("numbered.grr", numbered), ""},
      {folder.file("m.bgrm", as_records<float>(t)), R"("markers":8)"},
      {folder.file("m.dgrm", as_records<double>(t)), R"("markers":8)"},
  };
  for (const auto& [path, keys] : files) {
    SCOPED_TRACE(path);
    Made made;
    ASSERT_TRUE(made.get(path, keys)) << made.messages;
    EXPECT_TRUE(near(made.matrix.values, expected, 1e-10, 1e-12));
    EXPECT_EQ(made.matrix.labels.empty(), path.ends_with("bare.mat") || path.ends_with("grm"));
    EXPECT_TRUE(made.matrix.labels.empty() || made.matrix.labels[3] == label(3));
  }
}

/// Some columns of a table, genotypes in another order.
Table part_of(const Table& t, std::size_t from, std::size_t to, const std::vector<std::size_t>& order)
{
  Table part{order.size(), to - from, {}};
  for (const std::size_t i : order) {
    for (std::size_t j = from; j < to; ++j) part.x.push_back(t.at(i, j));
  }
  return part;
}

// A set of markers in several files, of several kinds and in several orders, is that of one file.
TEST(MarkerFiles, SeveralMakeOneSet)
{
  const TempFolder folder;
  const Table t = random_counts(9, 700, 77);
  const auto write = [&](const char* name, std::size_t from, std::size_t to, const std::vector<std::size_t>& order) {
    const Table part = part_of(t, from, to, order);
    std::string out = "id";
    for (std::size_t j = from; j < to; ++j) out += " " + marker(j);
    for (std::size_t i = 0; i < part.g; ++i) {
      out += "\n" + label(order[i]);
      for (std::size_t j = 0; j < part.r; ++j) out += std::isnan(part.at(i, j)) ? std::string(" NA") : text(" ", part.at(i, j));
    }
    return folder.file(name, out + "\n");
  };
  const std::vector<std::size_t> as_it_is = {0, 1, 2, 3, 4, 5, 6, 7, 8};
  const std::string first = write("c1.grr", 0, 200, as_it_is);
  const std::string second = write("c2.grr", 200, 650, {8, 2, 0, 1, 7, 3, 6, 5, 4});
  const std::string third = as_bed(folder, "c3", part_of(t, 650, 700, as_it_is));
  const std::string list = text("\"file\":[\"", first, "\",\"", second, "\",\"", third, "\"]");
  constexpr Form standardised{"", 2};
  for (const auto& [keys, form] : {std::pair{"", by_means}, std::pair{",\"method\":2", standardised}}) {
    Made made;
    ASSERT_TRUE(made.get("G", list + keys)) << made.messages;
    EXPECT_EQ(made.model.data.regressors, 700);
    EXPECT_TRUE(made.model.data.all_coded());
    EXPECT_EQ(made.model.data.name(250), marker(250));
    EXPECT_EQ(made.matrix.labels[4], label(4));
    EXPECT_TRUE(near(made.matrix.values, plain_grm(t, form, true), 1e-10, 1e-12));
  }
  const std::vector<std::size_t> rows = {5, 0, 7};
  Made some;
  ASSERT_TRUE(some.get("G", list + R"(,"ids":["g6","g1","g8"])")) << some.messages;
  EXPECT_TRUE(near(some.matrix.values, plain_grm(part_of(t, 0, 700, rows), by_means, true), 1e-10, 1e-12));

  const std::string fewer = write("c4.grr", 0, 5, {0, 1, 2, 3, 4, 5, 6, 7});
  const std::string bare = folder.file("c5.dgrm", as_records<double>(part_of(t, 0, 3, as_it_is)));
  const std::string fewer_bare = folder.file("c6.dgrm", as_records<double>(part_of(t, 0, 3, rows)));
  const std::string apart = "can not be matched with those of";
  const std::tuple<std::string, std::string, std::string> faults[] = {
      {first, fewer, text("the genotype g9 of ", first, " is not in ", fewer)},
      {fewer, first, text("the genotype g9 of ", first, " is not in ", fewer)},
      {first, bare, text("the genotypes of ", bare, " ", apart, " ", first)},
      {bare, fewer_bare, "they have no labels, and there are 3 and 9"},
  };
  for (const auto& [one, other, told] : faults) {
    Made made;
    EXPECT_FALSE(made.get("G", text("\"markers\":3,\"file\":[\"", one, "\",\"", other, "\"]")));
    EXPECT_TRUE(has_message(made.eh, told));
  }
  Made range;
  EXPECT_FALSE(range.get("G", list + R"(,"range":[2,3])"));
  EXPECT_TRUE(has_message(range.eh, "a range of regressors can not be chosen among those of several files"));
  Made numbers;
  EXPECT_FALSE(numbers.get("G", R"("file":[1,2])"));
}

TEST(MarkerFiles, Messages)
{
  struct Row {
    const char* name;
    const char* contents;
    const char* keys;
    const char* told;
  };
  const Row rows[] = {
      {"a.grr", "id x y\na 0 1\nb 2 NA\nc 1 1\n", "",
       "1/- GRR Header line begins: id x y\n1/- the header line indicates there are 2 regressors in the file\n"
       "1/- using the 2 regressors that appear to be in the file\n1/- marker data [0/1/2] for 2 markers read from a.grr\n"
       "1/- 1 missing Regressor values (16.67%) replaced by column average\n1/- Marker Means\n9999/- 1.0000 1.0000\n"
       "1/- regressor values ranged 0.0000 to 2.0000, regressor Means ranged 1.0000 to 1.0000\n"
       "1/- regressors centered at their means\n1/- Sigma (2p(1-p)) is 1.0000\n9999/- Sigma (2p(1-p))^2 is 0.50000\n"
       "1/- GRM matrix scaling factor is 1.0000\n"},
      {"b.mat", "a 0.5 1 7\nb 2.5 3 7\n", R"("markers":2,"centre":3)",
       "1/- using the 2 regressors that appear to be in the file\n3/- 2 records had extra fields\n"
       "1/- data for 2 genotypes and 2 regressors read from b.mat\n1/- Marker Means\n9999/- 1.5000 2.0000\n"
       "1/- regressor values ranged 0.50000 to 3.0000, regressor Means ranged 1.5000 to 2.0000\n"
       "1/- regressors centered at 3.0000\n1/- not centered near the regressor means\n"
       "1/- GRM matrix scaling factor is 2.0000\n"},
      {"c.grr", "1000\na 0 1 2\nb 1 1 0\n", "",
       "1/- GRR Header line begins: 1000\n1/- the header line indicates there are 1000 regressors in the file\n"
       "1/- using the 3 regressors that appear to be in the file\n"},
      {"d.grr", "id x y z\na 0 1 2\nb 1 1 0\n", R"("markers":2)",
       "1/- GRR Header line begins: id x y z\n1/- the header line indicates there are 3 regressors in the file\n"
       "1/- using the first 2 of the regressors that appear to be in the file\n1/- marker data [0/1/2] for 2 markers"},
      {"e.mkr", "a 0 1\n", "", "!4/3 please indicate the expected number of regressors (markers)\n"},
      {"f.grr", "id x y // from the north\na 0 1\n", "",
       "1/- GRR Header line begins: id x y // from the north\n"
       "!4/3 problem parsing \"// from the north\", move this text onto a seperate line\n"},
      {"g.grr", "id \"x y\na 0 1\n", "",
       "1/- GRR Header line begins: id \"x y\n!4/3 failed to parse GRR Label Line: id \"x y\n9999/3 a quote is not closed\n"},
      {"h.grr", "id x y\na 0 1\nb 1\n", "", "!4/2 unable to read from h.grr, attempting to read line 3\n9999/2 2 values were expected, 1 found\n"},
      {"i.grr", "id x y\na 0 1\n\n// that\nb 1 1.2.3\n", "",
       "!4/2 unable to read from i.grr, attempting to read line 5\n9999/2 1.2.3 is no number\n"},
      {"j.mkr", "a 0 nan\n", R"("markers":2)", "!4/2 unable to read from j.mkr, attempting to read line 1\n9999/2 a value is not finite\n"},
      {"k.mkr", "a 0 1\nb 1 1\na 2 0\n", R"("markers":2)", "!4/3 the genotype a stands twice in k.mkr, on lines 1 and 3\n"},
      {"l.mkr", "a 0 2\nb 0 2\n", R"("markers":2)", "!4/3 the GRM matrix scaling factor is 0, no regressor of l.mkr varies\n"},
      {"m.mkr", "a 0 1\nb 1 1\n", R"("markers":2,"ids":["b","z"])", "!4/3 the genotype z of ids is not in m.mkr\n"},
      {"n.mkr", "a 0 1\nb 1 1\n", R"("markers":2,"ids":["b","b"])", "!4/3 the genotype b stands twice in ids\n"},
      {"o.mkr", "a 0 1\nb 1 1\n", R"("markers":2,"range":[2,3])", "!4/3 the range 2 to 3 is beyond the 2 regressors of o.mkr\n"},
      {"p.mkr", "0 1\n1 1\n", R"("markers":2,"nokey":1,"ids":["b"])", "!4/3 the genotypes of p.mkr have no labels, so that ids can not choose among them\n"},
      {"q.mkr", "", R"("markers":2)", "!4/2 unable to read from q.mkr, attempting to read line 1\n9999/2 the file has no data\n"},
      {"r.mkr", "id snp v\na x 1\nb x 0\na x 2\n", R"("snpname":"snp","gidname":"id")",
       "!4/2 unable to read from r.mkr, attempting to read line 4\n9999/2 marker x of genotype a stands twice\n"},
      {"s.mkr", "a 0 1\n", R"("method":4)",
       "!4/3 invalid value supplied for method, was expecting one of: an integer from 1 to 3, supplied value = 4\n"},
      {"t.mkr", "a 0 1\n", R"("range":[2])",
       "!4/3 invalid value supplied for range, was expecting one of: an array of 2 integers, the first and the last regressor, supplied value = [2]\n"},
      {"u.mkr", "a 0 1\n", R"("fbb":1.5)",
       "!4/3 invalid value supplied for fbb, was expecting one of: a logical or degrees of freedom above 2, supplied value = 1.5\n"},
      {"v.mat", "a 1e300 0\nb 1 2\n", R"("markers":2)", "!4/3 the regressors of v.mat are too large, their squares are not finite\n"},
      {"none.mkr", nullptr, "", "!4/2 failed to open GRR file none.mkr\n9999/2 No such file or directory\n"},
      {"none", nullptr, "", "!4/2 failed to open GRR file none\n9999/2 No such file or directory\n"},
      {"none.bed", nullptr, "", "!4/2 failed to open GRR file none.fam\n9999/2 No such file or directory\n"},
  };
  const TempFolder folder;
  const auto back = std::filesystem::current_path();
  std::filesystem::current_path(folder.path("."));
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    if (row.contents != nullptr) folder.file(row.name, row.contents);
    Made made;
    made.get(row.name, row.keys);
    EXPECT_NE(made.messages.find(row.told), std::string::npos) << made.messages;
  }
  std::filesystem::current_path(back);
}

TEST(MarkerFiles, FaultsOfBedFiles)
{
  const TempFolder folder;
  const Table t = random_counts(6, 5, 2);
  const std::string path = as_bed(folder, "m", t);
  std::string whole, error;
  ASSERT_TRUE(read_file(path, whole, error));
  const auto told = [&](std::string bytes, std::string_view words) {
    folder.file("m.bed", bytes);
    Made made;
    EXPECT_FALSE(made.get(path));
    EXPECT_TRUE(has_message(made.eh, words));
    EXPECT_TRUE(has_message(made.eh, path));
  };
  for (std::size_t n = 0; n < whole.size(); ++n)
    told(whole.substr(0, n), n < 3 ? "its first bytes are not those of a .bed file" : text("it has ", n, " bytes"));
  told(whole + "x", "6 individuals in .fam and 5 markers in .bim need 13");
  told("\x6c\x1b" + std::string(1, '\0') + whole.substr(3), "they are in the order of the individuals");
  told("x" + whole.substr(1), "its first bytes are not those of a .bed file");
  folder.file("m.bed", whole);
  folder.file("m.fam", "f a\nf b\nf\n");
  Made made;
  EXPECT_FALSE(made.get(path));
  EXPECT_EQ(made.messages, text("!4/2 unable to read from ", folder.path("m.fam"),
                                ", attempting to read line 3\n9999/2 2 fields were expected, 1 found\n"));
}

}  // namespace
}  // namespace tolvan_test
