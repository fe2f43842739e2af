// Pedigrees from files: how lines are read, what is told of them, the files that they leave.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "base/files.h"
#include "base/text.h"
#include "pedigree/pedigree_file.h"
#include "support/checks.h"

namespace tolvan_test {
namespace {

using namespace tolvan;

/// One pedigree of a file with that text, under further keys of its entry.
struct Reading {
  TempFolder folder;
  ERROR_HANDLER eh;
  std::vector<FIT_PEDIGREE> found;
  std::string messages;

  const FIT_PEDIGREE* read(const std::string& contents, const std::string& keys = R"("type":"ft_csv")")
  {
    const std::string path = folder.file("p.csv", contents);
    JsonError error;
    const auto request = parse_json(text(R"({"pedigree_file":{"name":")", path, "\",", keys, "}}"), error);
    EXPECT_NE(request, nullptr) << keys;
    AIPEDA(eh, *request, found);
    EXPECT_TRUE(eh.stack().entries.empty());
    messages = messages_text(eh);
    for (std::size_t at = messages.find(path); at != std::string::npos; at = messages.find(path))
      messages.replace(at, path.size(), "FILE");
    return eh.terminate() || found.empty() ? nullptr : &found.front();
  }
  /// "id male female" of the rows, parents by name.
  std::string rows() const
  {
    std::string out;
    const FIT_PEDIGREE& p = found.front();
    const auto name = [&](std::int32_t row) {
      return row > 0 ? p.labels[static_cast<std::size_t>(row - 1)] : std::string("0");
    };
    for (std::size_t k = 0; k < p.labels.size(); ++k)
      out += text(p.labels[k], " ", name(p.pedigree.male[k]), " ", name(p.pedigree.female[k]), "\n");
    return out;
  }
  std::string file(const std::string& name) const
  {
    std::string contents, error;
    EXPECT_TRUE(read_file(folder.path(name), contents, error)) << name;
    return contents;
  }
};

constexpr const char* structure =
    "1/- 3 identities in the pedigree,\n9999/- generations on Sire side range 1 to 1\n"
    "9999/- generations on Dam side range 1 to 1\n";

TEST(PedigreeFile, Layouts)
{
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"a,0,0\nb,,\nc,a,b\n", R"("type":"ft_csv")",
       "1/- reading pedigree file FILE\n1/- Multiple successive COMMAs/TABs imply unknown parent\n"},
      {"a\nb * *\nc a b\n", R"("type":"ft_text")", "1/- reading pedigree file FILE\n"},
      {"\xEF\xBB\xBF"
       "a\t\t\nb ,0, 0\n\nc\ta\tb # remark\n// more remarks\n",
       R"("type":"ft_text")",
       "1/- reading pedigree file FILE\n1/- Multiple successive COMMAs/TABs imply unknown parent\n"},
      {"id sire dam\nherd1 a 0 NA\nherd2 b nan 0\nherd1 c a b rest of the line\n",
       R"("type":"ft_text","skip":1,"cskip":1)",
       "1/- reading pedigree file FILE: skipping 1 lines\n1/- pedigree header line: id sire dam\n"},
      {"\"a\",0,0\r\n'b',0,0\r\nC,a,B\r\n", R"("type":"ft_csv","uppercase":"yes")",
       "1/- reading pedigree file FILE\n"},
      {"a,0,0\nc,a,b\n", R"("type":"ft_csv")", "1/- reading pedigree file FILE\n"},
      {"c,a,b\nb,0,0\na,0,0\n", R"("type":"ft_csv","sort":true)", nullptr},
  };
  for (const auto& [contents, keys, messages] : cases) {
    SCOPED_TRACE(contents);
    Reading r;
    ASSERT_NE(r.read(contents, keys), nullptr) << r.messages;
    if (messages != nullptr) {
      EXPECT_EQ(r.messages, text(messages, structure));
    }
    EXPECT_EQ(r.found.front().pedigree.rows(), 3);
    EXPECT_EQ(r.found.front().inverse.inbreeding, (std::vector<double>{0, 0, 0}));
    EXPECT_NEAR(r.found.front().inverse.logdet, std::log(2.0), 1e-15);
  }
  Reading blank;
  blank.read("big a,0,0\nb,0,big a\n");
  EXPECT_EQ(blank.rows(), "big_a 0 0\nb 0 big_a\n");
  EXPECT_TRUE(has_message(blank.eh, "Embedded blank in Pedigree Name changed to _"));
}

TEST(PedigreeFile, Complaints)
{
  const std::string csv = R"("type":"ft_csv")";
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"a,0,0\n", R"("type":"ft_data")", "!4/3 expected either a text or csv file for the pedigree\n"},
      {"a,0,0\n", csv + R"(,"giv":3)", "!4/3 expected a value of 0, 1, or 2 for, supplied value = 3\n"},
      {"a,0,0\n", csv + R"(,"dom":1,"mgs":1)",
       "!4/4 dominance matrices (dom) are implemented for plain pedigrees alone\n"},
      {"a,0,0\n", csv + R"(,"dom":3)",
       "!4/3 invalid value supplied for pedigree_file.dom, was expecting one of: an integer from 0 to 2, "
       "supplied value = 3\n"},
      {"a,0,0\n", csv + R"(,"self":2)",
       "!4/3 invalid value supplied for pedigree_file.self, was expecting one of: a real number from 0 to 1, "
       "supplied value = 2\n"},
      {"1 1 2.5\n2 1 0.5\n", R"("type":"ft_text")",
       "!4/3 expecting FILE to be a pedigree file but found a GRM/GIV file instead\n"},
      {"!LDET 3\n1 1 2\n", R"("type":"ft_text")",
       "!4/3 expecting FILE to be a pedigree file but found a GRM/GIV file instead\n"},
      {"a,0,0\nb,a,0 // the first\n", csv,
       "!4/3 problem parsing \"// the first\", move this text onto a seperate line\n9999/3 pedigree line "
       "2\n"},
      {"a,0,0\nb,b,0\nc,a,c\n", csv,
       "!4/3 an individual cannot be its own parent, faulty pedigree line 2\n!4/3 an individual cannot be "
       "its own parent, faulty "
       "pedigree line 3\n"},
      {"a,0,0\n,a,0\n", csv,
       "1/- Multiple successive COMMAs/TABs imply unknown parent\n"
       "!4/3 failed to process the pedigree file,  having identified 1 individuals from 2 lines of pedigree "
       "file FILE\n"
       "9999/3 the identity is missing in line 2\n"},
      {"a,0,0\nb,a,0\nb,0,a\n", csv,
       "!4/3 contradictory pedigree line b 0 a was given as b a 0\n9999/3 lines 3 and 2\n"},
      {"a,0,0\nb,a,b\nc,a,0\n,a,0\nc,0,a\nd,d,0\n", csv,
       "1/- Multiple successive COMMAs/TABs imply unknown parent\n"
       "!4/3 an individual cannot be its own parent, faulty pedigree line 2\n"
       "!4/3 failed to process the pedigree file,  having identified 4 individuals from 4 lines of pedigree file FILE\n"
       "9999/3 the identity is missing in line 4\n"
       "!4/3 an individual cannot be its own parent, faulty pedigree line 6\n"
       "!4/3 contradictory pedigree line c 0 a was given as c a 0\n9999/3 lines 5 and 3\n"},
      {"s,0,0,3\nd,0,0,2\n// a remark\nx,s,d,no\ny,s // here\n", csv + R"(,"xlinkr":"1")",
       "!4/3 Invalid Sex Code in pedigree field 4.\n9999/3 pedigree line 1\n"
       "!4/3 Invalid Sex Code in pedigree field 4.\n9999/3 pedigree line 4\n"
       "!4/3 problem parsing \"// here\", move this text onto a seperate line\n9999/3 pedigree line 5\n"},
      {"a,0,0\nb,a,0\n", csv + R"(,"alpha":1)",
       "!4/3 an ALPHA pedigree must contain more than 2 individuals\n"},
      {"b,a,0\na,0,0\n", csv,
       "!4/3 Pedigree not sorted properly, Use !SORT.\n!4/3 pedigree is conflicted or out of order\n"
       "!4/3 error processing pedigree for individual 1 of 2\n9999/3 try verifying the pedigree file\n"},
      {"x,a,0\na,b,0\nb,c,x2\nc,0,a\n", csv + R"(,"sort":1)",
       "1/- Sort Pedigree\n"
       "!4/3 apparent error in pedigree relationships demonstrated in the following pedigree chain (youngest "
       "first)\n"
       "9999/3 a b 0\n9999/3 b c x2\n9999/3 c 0 a\n"
       "!4/3 pedigree inconsistency, the following pedigree rows could not be organised to form a valid "
       "pedigree\n"
       "9999/3 a b 0\n9999/3 b c x2\n9999/3 c 0 a\n"},
      {"g,0,0\nh,g,0\na,g,h\n", csv + R"(,"group":2)", "!4/3 Invalid 'parent' for genetic group h\n"},
      {"s,0,0,1\nd,s,s,2\n", csv + R"(,"xlinkr":"1")",
       "!4/3 unable to form S-Inverse from predigree\n!4/3 pedigree is conflicted or out of order\n"
       "!4/3 error processing pedigree for individual 2 of 2\n9999/3 try verifying the pedigree file\n"},
      {"g,0,0\nb,a,0\na,0,g\n", csv + R"(,"group":1)",
       "1/- use !LAST qualifier to make sure GROUPS absorbed last\n"
       "!4/3 Pedigree not sorted properly, Use !SORT.\n"
       "!4/3 Unable to form A-inverse from pedigree, maybe some parents are not assigned to GROUPS\n"
       "!4/3 pedigree is conflicted or out of order\n!4/3 error processing pedigree for individual 2 of 3\n"
       "9999/3 try verifying the pedigree file\n"},
      {"s,0,0,1\nx,s,0,1000\ny,x,0,-1\n", csv + R"(,"fgen":0)",
       "!4/3 Selfing value 1000 for x is too large (> 100).\n9999/3 pedigree line 2\n"},
      {"s,0,0,-0.5\n", csv + R"(,"fgen":0)", "!4/3 Selfing value -0.5 for s is negative.\n9999/3 pedigree line 1\n"},
      {"s,0,0,3\n", csv + R"(,"xlinkr":"1")",
       "!4/3 Invalid Sex Code in pedigree field 4.\n9999/3 pedigree line 1\n"},
      {"a,0,0\n" + std::string(2000000, 'b') + ",a,0\n", csv,
       "!4/2 error reading from FILE\n9999/2 FILE, line 2: a line of more than 1048576 bytes\n"},
      {"a,0,0\n" + std::string(2000000, 'b') + ",a,0\n", csv + R"(,"mgs":1)",
       "!4/2 error reading from DamMGS\n9999/2 FILE, line 2: a line of more than 1048576 bytes\n"},
      {"a,0,0\n", csv + R"(,"goffset":-0.5)", "!4/3 The groups offset must be -1 or >= 0.\n"},
      {"", csv,
       "!4/3 failed to process the pedigree file,  having identified 0 individuals from 0 lines of pedigree "
       "file FILE\n"},
  };
  for (const auto& [contents, keys, messages] : cases) {
    Reading r;
    EXPECT_EQ(r.read(contents, keys), nullptr) << contents.substr(0, 200);
    std::string got = r.messages;
    for (const char* note : {"1/- reading pedigree file FILE\n",
                             "1/- for creating the sex linked inverse relationship matrix,the first "
                             "parent is assumed XY and the second assumed XX\n"}) {
      const std::string_view words(note);
      if (const std::size_t at = got.find(words); at != std::string::npos) got.erase(at, words.size());
    }
    EXPECT_EQ(got, messages) << contents.substr(0, 200);
  }
  Reading wide;
  wide.read(
      std::string("\xFF\xFE"
                  "1\0,\0",
                  6));
  EXPECT_TRUE(has_message(
      wide.eh, "Pedigree file appeast to be in some two-byte coding that may not be handled correctly: "));
}

TEST(PedigreeFile, RepeatedIdentities)
{
  Reading r;
  ASSERT_NE(r.read("a,0,0\nb,0,0\nc,a,b\nc,a,b\nc,0,0\nb,a,0\nb,a,0\n"), nullptr) << r.messages;
  EXPECT_EQ(r.rows(), "a 0 0\nb a 0\nc a b\n");
  EXPECT_TRUE(has_message(r.eh, "there were 2 duplicate lines in pedigree"));
  EXPECT_TRUE(has_message(r.eh, "respecification of c as a base animal at line 5 is ignored"));
  EXPECT_TRUE(has_message(r.eh, "1 base animals were respecified with parentage"));
  EXPECT_NEAR(r.found.front().inverse.inbreeding[2], 0.25, 1e-15);
  Reading repeat;
  ASSERT_NE(repeat.read("a,0,0\nb,a,0\nb,0,a\n", R"("type":"ft_csv","repeat":"x")"), nullptr);
  EXPECT_EQ(repeat.rows(), "a 0 0\nb a 0\n");
}

TEST(PedigreeFile, BreedingSystems)
{
  const std::string rows = "s,0,0\nd,0,0\nx,s,d\ny,x,0\n";
  const std::tuple<std::string, std::string, std::vector<double>, const char*> cases[] = {
      {rows, R"("self":0.5)", {0, 0, 0, 0.25}, "Open pollinated selfing proportion 0.5"},
      {rows,
       R"("inbred":"yes")",
       {0.99999, 0.99999, 0.99999, 0.99999},
       "inbred base lines: Inbreeding coefficent 1"},
      {rows, R"("inbred":1,"fgen":0.4)", {0.4, 0.4, 0, 0}, "inbred base lines: Inbreeding coefficent 0.4"},
      {"s,0,0,2\nd,0,0\nx,s,d,1\ny,x,z,0.3\n",
       R"("fgen":0.5)",
       {0.5, 0.75, 0.5, 0.5, 0.3},
       nullptr},  // z comes ahead of all
      {"s,0,0,1\nd,0,0,2\nx,s,d,F\nz,s,x,f\n",
       R"("xlinkr":"on")",
       {0, 0, 0, 0.5},
       "for creating the sex linked inverse relationship matrix,the first parent is assumed XY and the "
       "second assumed XX"},
      {"a,0,0\nb,a,0\nc,b,a\n", R"("mgs":"1")", {0, 0, 0.125}, nullptr},
      {"a,0,0\nb,a,0\nc,b,a\n",
       R"("bee":0.4)",
       {0, 0, 0.2},
       "Bee breeding path coefficent 0.4, second parent is mother queen of drone"},
      {"g,0,0\ns,g,g\nx,s,g\n",
       R"("group":1,"goffset":1)",
       {0, 0, 0},
       "GRV, the ratio of Groups variance (Vg) to Additive variance (Va) being the inverse of the !Goffset "
       "argument"},
  };
  for (const auto& [contents, keys, F, note] : cases) {
    SCOPED_TRACE(keys);
    Reading r;
    ASSERT_NE(r.read(contents, "\"type\":\"ft_csv\"," + keys), nullptr) << r.messages;
    EXPECT_TRUE(near(r.found.front().inverse.inbreeding, F, 1e-13));
    if (note != nullptr) {
      EXPECT_TRUE(has_message(r.eh, note));
    }
  }
}

TEST(PedigreeFile, TrimmedToTheIndividualsWithData)
{
  Reading r;
  const std::string data = r.folder.file("data.csv", "animal,y\nd,3\n\nb,4\n,7\nd,5\n");
  ASSERT_NE(r.read("a,0,0\nb,a,0\nc,a,b\nd,b,0\ne,d,c\n", text(R"("type":"ft_csv","trim":")", data, "\"")),
            nullptr)
      << r.messages;
  EXPECT_EQ(r.rows(), "a 0 0\nb a 0\nd b 0\n");
  EXPECT_TRUE(has_message(r.eh, "2 identities have data records; 5 records checked"));
  EXPECT_TRUE(has_message(r.eh, "no trim check field [ 1 ] found on line: 5"));
  Reading none;
  none.read("a,0,0\nb,a,0\n", text(R"("type":"ft_csv","trim":")", data, "\""));
  EXPECT_FALSE(none.eh.terminate());  // b has data
  Reading other;
  other.read("x,0,0\nz,x,0\n", text(R"("type":"ft_csv","trim":")", data, "\""));
  EXPECT_TRUE(has_message(other.eh, "failed to find identity animal in the pedigree file"));
}

TEST(PedigreeFile, FilesThatItLeaves)
{
  Reading r;
  ASSERT_NE(r.read("g,0,0\nx,s,d\ny,s,x\ns,0,g\n", R"("type":"ft_csv","sort":1,"aif":"y","giv":2,"group":1)"),
            nullptr)
      << r.messages;
  EXPECT_EQ(r.rows(), "g 0 0\nd 0 0\ns 0 g\nx s d\ny s x\n");
  EXPECT_TRUE(has_message(r.eh, ".srt, first 4 rows include all parents and base individuals"));
  EXPECT_EQ(r.file("p.srt"), "g, 0, 0\nd, 0, 0\ns, 0, g\nx, s, d\ny, s, x\n");
  EXPECT_EQ(r.file("p.aif"),
            "Identity          Inbreeding   Diag_of_Ainverse Parent/NonParent\n"
            "g                           0.000000        0.250000 Parent\n"
            "d                           0.000000        1.500000 Parent\n"
            "s                           0.000000        2.000000 Parent\n"
            "x                           0.000000        2.500000 Parent\n"
            "y                           0.250000        2.000000 NonParent\n");
  EXPECT_EQ(r.file("p_A.giv").substr(0, 24), "1 1 0.25\n2 2 1.5\n3 1 -0.");
  EXPECT_EQ(r.file("p_B.giv"), "2 2 1\n3 3 1\n4 4 2\n5 5 2\n");
  EXPECT_EQ(r.file("p_Q.giv"), "3 1 0.5\n4 1 0.25\n5 1 0.375\n");
  EXPECT_EQ(r.file("p_Parent.ped"), r.file("p.srt"));
}

TEST(PedigreeFile, NotesOfWhatIsOutOfTheOrdinary)
{
  Reading linked;
  ASSERT_NE(linked.read("x,s,d,2\ns,0,0,1\nd,0,0,2\ny,x2,x,1\nz,s,x,2\n", R"("type":"ft_csv","sort":1,"xlinkr":1,"aif":1)"), nullptr)
      << linked.messages;
  EXPECT_TRUE(has_message(linked.eh, "check the 4th (XLINK) field of any parent records inserted in the sorted pedigree"));
  EXPECT_NE(linked.messages.find("1/- Sort Pedigree\n9999/- 1 of 6 rows stood ahead of their parents\n"), std::string::npos)
      << linked.messages;
  EXPECT_EQ(linked.file("p.aif").find("Identity          Inbreeding XlinkInBreeding   Diag_of_Ainverse Parent/NonParent\n"
                                      "x2                          0.000000    0.000000        2.000000 Parent\n"),
            0U);
  // A daughter of sire and daughter: autosomal inbreeding 0.25, that of an X-linked locus 0.5.
  EXPECT_NE(linked.file("p.aif").find("z                           0.250000    0.500000 "), std::string::npos) << linked.file("p.aif");

  Reading groups;
  ASSERT_NE(groups.read("g,0,0\na,g,g\n", R"("type":"ft_csv","group":1,"goffset":0.5,"reduce":1,"method":3)"), nullptr)
      << groups.messages;
  for (const char* words :
       {"a large value may bias the Va down so start with a value of 1 but test other values (say 10, 0.1) to maximize the "
        "REML likelihood",
        "reducing the inverse relationship matrix not implemented forthe Verbyla method. No reduction will therefore be done"})
    EXPECT_TRUE(has_message(groups.eh, words));
  EXPECT_FALSE(groups.found.front().reduce);
  Reading whole;
  ASSERT_NE(whole.read("a,,,\n", R"("type":"ft_csv")"), nullptr) << whole.messages;
  EXPECT_EQ(whole.rows(), "a 0 0\n");
}

// A sorted pedigree comes back from its file, unless it was made of another file or in another way.
TEST(PedigreeFile, SortedPedigreesAreKept)
{
  const std::string keys = R"("type":"ft_csv","sort":1,"group":1,"fgen":0.25)";
  const std::string rows = "g,0,0\nx y,s,d\nz,x y,0,2\nd,g,0\n";
  Reading r;
  ASSERT_NE(r.read(rows, keys), nullptr) << r.messages;
  const std::string kept = r.file("ainverse.bin");
  const auto again = [&](const std::string& contents, const std::string& other_keys) {  // from what was kept
    r.found.clear();
    r.eh = {};
    JsonError error;
    const std::string path = contents.empty() ? r.folder.path("p.csv") : r.folder.file("p.csv", contents);
    const auto request = parse_json(text(R"({"pedigree_file":{"name":")", path, "\",", other_keys, "}}"), error);
    AIPEDA(r.eh, *request, r.found);
    EXPECT_FALSE(r.eh.terminate()) << messages_text(r.eh);
    return messages_text(r.eh).find("if you need the !TRIM/SORT action to be repeated") != std::string::npos;
  };
  const std::string sorted = r.rows();
  const std::vector<double> inbreeding = r.found.front().inverse.inbreeding;
  const double logdet = r.found.front().inverse.logdet;
  EXPECT_TRUE(again("", keys));
  EXPECT_EQ(r.rows(), sorted);
  EXPECT_EQ(r.found.front().inverse.inbreeding, inbreeding);
  EXPECT_EQ(r.found.front().inverse.logdet, logdet);
  EXPECT_EQ(r.found.front().pedigree.level, (std::vector<double>{0, 0.25, 0, 0, 2}));

  EXPECT_FALSE(again("", R"("type":"ft_csv","sort":1,"group":1,"fgen":0.5)"));
  EXPECT_FALSE(again(rows + "w,z,0\n", keys));
  // Damaged in any way the pedigree is read anew.
  std::mt19937 random(6);
  for (std::size_t at = 0; at < kept.size(); ++at) {
    const std::string whole = r.file("ainverse.bin");
    r.folder.file("ainverse.bin", whole.substr(0, at));
    EXPECT_FALSE(again("", keys)) << at;
    std::string damaged = whole;
    damaged[at] ^= static_cast<char>(1 + random() % 255);
    r.folder.file("ainverse.bin", damaged);
    EXPECT_FALSE(again("", keys)) << at;
    EXPECT_EQ(r.found.front().pedigree.rows(), 6);
  }
  EXPECT_TRUE(again("", keys));
}

}  // namespace
}  // namespace tolvan_test
