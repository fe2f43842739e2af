// The object: what a request says, what it is told, and the tables and scalars it gets.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "api/api_options.h"
#include "base/clock.h"
#include "base/memory.h"
#include "base/text.h"
#include "pedigree/ainverse_object.h"
#include "pedigree/check_pedigree.h"
#include "support/checks.h"
#include "support/failing_memory.h"

namespace tolvan_test {
namespace {

using namespace tolvan;

std::string messages_of(AINV_OBJECT& object, std::string_view document)
{
  ERROR_HANDLER eh;
  AINV_STORE_JSTR(eh, object, document);
  AINV_PROCESS(eh, object);
  EXPECT_TRUE(eh.stack().entries.empty());
  return messages_text(eh);
}

std::string messages_of(std::string_view document)
{
  AINV_OBJECT object;
  return messages_of(object, document);
}

/// Each line "!4/3 <text>" of what a pedigree of three columns and further keys draws.
std::string complaints(const std::string& id, const std::string& male, const std::string& female,
                       const std::string& more = {})
{
  return messages_of(
      text(R"({"id":[)", id, R"(],"male":[)", male, R"(],"female":[)", female, "]", more, "}"));
}

std::vector<std::string> uids(const AINV_OBJECT& object)
{
  return object.tables.find_table("TABLE_AINV_UID")->string_col[0];
}

struct Case {
  std::string document;
  std::string messages;
};

TEST(AinverseRequest, RulesOfTheKeys)
{
  const std::string abc = R"({"id":["a","b","c"],"male":[0,0,"a"],"female":[0,0,"b"])";
  const Case cases[] = {
      {"  ", "!4/3 no information on the pedigree has been supplied\n"},
      {"[1]", "!4/1 the JSON document is not an object\n"},
      {"{}",
       "!4/3 Individuals not found in JSON object.\n!4/3 Male parents not found in JSON object.\n"
       "!4/3 Female parents not found in JSON object.\n"},
      {R"({"id":["a","b"],"male":null,"female":[1,2]})", "!4/3 Male parents not found in JSON object.\n"},
      {R"({"id":["a"],"male":[0],"female":[0]})", "!4/3 Too few individuals in the pedigree.\n"},
      {R"({"id":["a"],"male":[0,1],"female":[],"fgen":[1,2,3],"sex":0.5})",
       "!4/3 Too few individuals in the pedigree.\n"
       "!4/3 Number of male parents does not match the number of individuals.\n"
       "!4/3 Number of female parents does not match the number of individuals.\n"
       "!4/3 Number of selfing values does not match the number of individuals.\n"},
      {abc + R"(,"sex":[0,1]})", "!4/3 Number of sex values does not match the number of individuals.\n"},
      {abc + R"(,"fgen2":[1,2],"groups":[],"groupoffset":[0,0],"selfing":[1,1],"inbreed":[1,1],"mgs":[1,0]})",
       "!4/3 There should be just one selfing value for parents.\n!4/3 There should be just one number of "
       "groups.\n"
       "!4/3 There should be just one group offset value.\n!4/3 There should be just one selfing value.\n"
       "!4/3 There should be just one inbreeding value for parents.\n!4/3 There should be just one msg "
       "indicator.\n"},
      {abc + R"(,"fgen2":-0.5,"groups":[-1],"groupoffset":-2})",
       "!4/3 The selfing value for parents must not be negative.\n!4/3 The number of groups must not be "
       "negative.\n"
       "!4/3 The groups offset must be -1 or >= 0.\n"},
      {abc + R"(,"groupoffset":-1,"fgen2":[0],"mgs":[0],"groups":[0],"other":{"key":1}})", ""},
      {abc + R"(,"groups":3})", "!4/3 The number of groups must be less than the number of individuals.\n"},
      {abc + R"(,"selfing":1.5,"inbreed":-0.1})",
       "!4/3 The selfing value must be in the range (0, 1).\n!4/3 The inbreeding value for parents must be "
       "in the range (0, 1).\n"},
      {abc + R"(,"sex":[0,1,2]})",
       "!4/3 Was expecting the values supplied for sex to be in the range (0, 1). Actual range was [   "
       "0.000,    2.000]\n"},
      {abc + R"(,"fgen":[-1,0,100.5]})",
       "!4/3 Was expecting the values supplied for fgen to be in the range (0, 100). Actual range was [  "
       "-1.000,  100.500]\n"},
      {abc + R"(,"selfing":0.1,"inbreed":0.1})", "!4/3 Only one of selfing and inbreeding can be set.\n"},
      {abc + R"(,"sex":[0,1,1],"fgen":[0,0,1]})", "!4/3 Only one of selfing_levels and gender can be set.\n"},
      {R"({"id":["a",true],"male":[0,0],"female":[0,0]})",
       "!4/3 invalid value supplied for id[2], was expecting one of: a string or a number, supplied value = "
       "true\n"},
      {abc + R"(,"inbreed":1})", ""},
      {R"({"id":["a","b"],"male":[0,"a"],"female":[0,0],"psort":"x"})",
       "!4/3 invalid value supplied for psort, was expecting one of: a logical, supplied value = x\n"},
  };
  for (const Case& each : cases) EXPECT_EQ(messages_of(each.document), each.messages) << each.document;
  EXPECT_NE(messages_of("{\"id\":").find("!4/1 "), std::string::npos);
}

TEST(AinverseRequest, AllComplaintsOfABadPedigreeInOnePass)
{
  EXPECT_EQ(complaints(R"("a","b","c"," ","e","e","e","NA","i")", R"(0,0,"a","c","e","x","x",0,"b")",
                       R"(0,0,"b","c","a","y","y",0,"i")"),
            "!4/3 a is both a male and female parent.\n!4/3 c is both a male and female parent.\n"
            "!4/3 b is both a male and female parent.\n!4/3  has c as both male and female parent.\n"
            "!4/3 One of the pedigree ids is missing at row 4.].\n!4/3 One of the pedigree ids is missing at "
            "row 8.].\n"
            "!4/3 e cannot be its own male parent.\n!4/3 i cannot be its own female parent.\n"
            "!4/3 e occurs more than once in the pedigree.\n");
  EXPECT_EQ(complaints(R"("s","d","c","x")", R"("d",0,"s","d")", R"(0,"s2","d2",0)", R"(,"sex":[1,0.5,0,1])"),
            "!4/3 s has sex=female but is a male parent.\n!4/3 Gender value 0.5 for d must be 0 or 1.\n");
  EXPECT_EQ(complaints(R"("s","d","c")", R"(0,0,"s")", R"(0,0,"d")", R"(,"sex":[0,0,1])"),
            "!4/3 d has sex=male but is a female parent.\n");
  EXPECT_EQ(complaints("1,2,3", "2,3,1", "0,0,0"),
            "!4/3 Unable to sort pedigree so all parents are before their progeny.\n"
            "9999/3 Individual 1 comes before its parents.\n9999/3 Individual 2 comes before its parents.\n"
            "9999/3 Individual 3 comes before its parents.\n");
  // Those that merely descend from a loop, or precede it, are no members.
  EXPECT_EQ(complaints("1,2,3,4,5", "5,3,2,3,0", "0,0,0,1,0"),
            "!4/3 Unable to sort pedigree so all parents are before their progeny.\n"
            "9999/3 Individual 2 comes before its parents.\n9999/3 Individual 3 comes before its parents.\n");
  EXPECT_EQ(complaints("1,2", "2,0", "0,0", R"(,"psort":false)"),
            "!4/3 Pedigree not sorted properly, Use !SORT.\n!4/3 Fault for individual 1 when calculating the "
            "inverse pedigree.\n");
  EXPECT_EQ(complaints("1,2,3", "0,0,1", "0,0,9", R"(,"groups":2,"mv":"9")"),
            "3/- empty Genetic Group 2 generated a Constraint\n");
  EXPECT_EQ(complaints("1,2,3", "0,1,1", "0,0,1", R"(,"groups":2)"),
            "!4/3 Invalid 'parent' for genetic group 2\n");
}

TEST(AinverseRequest, NamesAndMissingParents)
{
  // 7, "7" and 7.0 are one name; "00", "na" and "NaN" are names, and parents without a row get one ahead of
  // all others.
  AINV_OBJECT object;
  EXPECT_EQ(messages_of(object, R"({"id":[7,"8","x",9.5,"-3"],"male":["0",7.0,"00"," ","8"],
                                    "female":["NA","na",null,"nan","NaN"]})"),
            "");
  EXPECT_EQ(uids(object), (std::vector<std::string>{"00", "na", "NaN", "7", "8", "x", "9.5", "-3"}));
  const OUTPUT_TABLE& pedigree = *object.tables.find_table("TABLE_AINV_PEDIGREE");
  EXPECT_EQ(pedigree.integer_col[0], (std::vector<std::int64_t>{1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(pedigree.integer_col[1], (std::vector<std::int64_t>{0, 0, 0, 0, 4, 1, 0, 5}));
  EXPECT_EQ(pedigree.integer_col[2], (std::vector<std::int64_t>{0, 0, 0, 0, 2, 0, 0, 3}));
  EXPECT_EQ(messages_of(object, R"({"id":[1,2],"male":[-9,1],"female":[-9,-9],"mv":"-9"})"), "");
  EXPECT_EQ(uids(object).size(), 2U);
  EXPECT_EQ(
      messages_of(object, R"({"id":["b","c"],"male":[". ","b"],"female":["e","."],"mv":" .","sex":[0,1]})"),
      "");
  EXPECT_EQ(uids(object), (std::vector<std::string>{"e", "b", "c"}));
  EXPECT_EQ(object.tables.find_table("TABLE_AINV_GENDER")->real_col[0], (std::vector<double>{1.0, 0.0, 1.0}));
}

TEST(AinverseRequest, TablesAndScalars)
{
  AINV_OBJECT object;
  EXPECT_EQ(messages_of(object, R"({"id":[1,2,3,4,5,6],"male":[0,0,1,1,4,5],"female":[0,0,2,0,3,2]})"), "");
  const OUTPUT_TABLE& a = *object.tables.find_table("TABLE_AINV_A");
  EXPECT_EQ(a.type, TableType::sparse_mtx);
  // Diagonal first, then the rest of each row in a chain by columns.
  EXPECT_EQ(a.integer_col[0], (std::vector<std::int64_t>{1, 2, 3, 4, 5, 6, 2, 3, 3, 4, 4, 5, 5, 5, 6, 6}));
  EXPECT_EQ(a.integer_col[1], (std::vector<std::int64_t>{1, 2, 3, 4, 5, 6, 1, 1, 2, 1, 3, 2, 3, 4, 2, 5}));
  EXPECT_EQ(a.integer_col[2],
            (std::vector<std::int64_t>{0, 7, 8, 10, 12, 15, 0, 9, 0, 11, 0, 13, 14, 0, 16, 0}));
  EXPECT_NEAR(a.real_col[0][5], 1.0 / 0.46875, 1e-15);
  std::vector<std::string> names;
  for (const auto& each : object.tables.tables) names.push_back(each->name);
  EXPECT_EQ(names, (std::vector<std::string>{"TABLE_AINV_INBREEDING", "TABLE_AINV_PEDIGREE", "TABLE_AINV_UID",
                                             "TABLE_AINV_A"}));
  EXPECT_EQ(object.tables.find_scalar("SCALAR_INVERTED")->ival, 1);
  // What a failing run leaves of the one before is nothing.
  EXPECT_NE(messages_of(object, "{}"), "");
  EXPECT_EQ(object.tables.ntables() + object.tables.nscalars(), 0);

  TAINVERSE wrong;
  wrong.matrix.kind = SparseKind::sm_compressed;
  ERROR_HANDLER eh;
  AINVT_POPULATE_TABLE_STORE(eh, wrong, object.tables);
  EXPECT_TRUE(
      has_message(eh,
                  "was expecting SMTX to have a type of sm_linked_list or sm_sparse in the ainverse type, "
                  "type = sm_compressed"));
}

TEST(AinverseRequest, DebugBitsPrintRequestAndResults)
{
  const std::string rows = R"("id":["a","b"],"male":[0,"a"],"female":[0,0]})";
  const auto printed = [&](const char* bits) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(messages_of(text("{\"debug\":", bits, ",", rows)), "");
    return testing::internal::GetCapturedStdout();
  };
  EXPECT_EQ(printed("0"), "");
  EXPECT_NE(printed(text(static_cast<std::int64_t>(DebugPrint::input_json)).c_str()).find("INPUT JSON"), std::string::npos);
  const std::string all = printed(text(static_cast<std::int64_t>(DebugPrint::all_output_full)).c_str());
  const std::string info = printed(text(static_cast<std::int64_t>(DebugPrint::all_output_info)).c_str());
  for (const std::string& each : {all, info}) {
    EXPECT_NE(each.find("ALL OUTPUT"), std::string::npos);
    EXPECT_NE(each.find("TABLE_AINV_A"), std::string::npos);
  }
  EXPECT_GT(all.size(), info.size());
}

TEST(AinverseRequest, EveryBreedingSystemIsReached)
{
  const std::string rows = R"({"id":["s","d","x","y"],"male":[0,0,"s","x"],"female":[0,0,"d",0])";
  const std::pair<const char*, std::vector<double>> cases[] = {
      {"}", {0.0, 0.0, 0.0, 0.0}},
      {R"(,"selfing":0.5})", {0.0, 0.0, 0.0, 0.25}},
      {R"(,"inbreed":0.2})", {0.2, 0.2, 0.0, 0.0}},
      {R"(,"inbreed":1})", {0.99999, 0.99999, 0.99999, 0.99999}},
      {R"(,"fgen":[2,0,1,0.3]})", {0.75, 0.0, 0.5, 0.3}},
      {R"(,"sex":[0,1,0,1]})", {0.0, 0.0, 0.0, 0.0}},
  };
  for (const auto& [more, F] : cases) {
    AINV_OBJECT object;
    EXPECT_EQ(messages_of(object, rows + more), "") << more;
    EXPECT_TRUE(near(object.tables.find_table("TABLE_AINV_INBREEDING")->real_col[0], F, 1e-14)) << more;
  }
  // A bull may be a sire and a maternal grandsire; a level for parents without a row.
  AINV_OBJECT object;
  EXPECT_EQ(messages_of(object,
                        R"({"id":["a","b","c","e"],"male":[0,"a","b","c"],"female":[0,0,"a","a"],"mgs":1})"),
            "");
  EXPECT_NEAR(object.tables.find_table("TABLE_AINV_INBREEDING")->real_col[0][2], 0.5 / 4.0, 1e-15);
  EXPECT_EQ(messages_of(object, R"({"id":["a","b"],"male":["p",0],"female":[0,0],"fgen2":3})"), "");
  EXPECT_NEAR(object.tables.find_table("TABLE_AINV_INBREEDING")->real_col[0][0], 0.875, 1e-15);
  // A group may stand for either parent.
  EXPECT_EQ(messages_of(
                object,
                R"({"id":["g","a","b"],"male":[0,"g","a"],"female":[0,"g","g"],"groups":1,"groupoffset":2})"),
            "");
  EXPECT_NEAR(object.tables.find_scalar("SCALAR_LOGDET")->rval, -std::log(2.0) - std::log(0.75), 1e-14);
}

TEST(SortPedigree, MovedRowsAreNamedOnThreeLines)
{
  std::string id, male, female;
  for (int k = 0; k < 40; ++k) {
    id += text(k > 0 ? "," : "", "\"offspring", k, "\"");
    male += text(k > 0 ? "," : "", "\"sire\"");
    female += k > 0 ? ",0" : "0";
  }
  ERROR_HANDLER eh;
  AINV_OBJECT object;
  AINV_STORE_JSTR(eh, object,
                  text(R"({"id":[)", id, R"(,"sire"],"male":[)", male, R"(,0],"female":[)", female, ",0]}"));
  AINV_PROCESS(eh, object);
  ASSERT_EQ(eh.count(), 5);
  EXPECT_EQ(eh.messages()[0].message, "Some parents had to be moved to come before their progeny:");
  EXPECT_EQ(eh.messages()[1].message,
            "offspring0, offspring1, offspring2, offspring3, offspring4, offspring5,");
  for (std::size_t k = 1; k < 4; ++k) EXPECT_LE(eh.messages()[k].message->size(), 79U);
  EXPECT_EQ(eh.messages()[4].message, "and  22 others");
  EXPECT_EQ(eh.EH_STATUS(), -1);
  EXPECT_EQ(uids(object).front(), "sire");
}

/// The rows that move when passes over the table, as it stands at the start of each, put every row whose
/// parent stands behind it directly behind the later one, until a pass moves none.
std::vector<bool> moved_by_passes(const PEDIGREE& p)
{
  std::vector<std::int32_t> table(p.id.size());
  for (std::size_t k = 0; k < table.size(); ++k) table[k] = static_cast<std::int32_t>(k);
  std::vector<bool> moved(table.size(), false);
  const auto place = [&](std::int32_t row) { return std::find(table.begin(), table.end(), row); };
  for (bool again = true; again;) {
    again = false;
    const std::vector<std::int32_t> start = table;
    std::vector<std::ptrdiff_t> at(table.size());
    for (std::size_t k = 0; k < start.size(); ++k)
      at[static_cast<std::size_t>(start[k])] = static_cast<std::ptrdiff_t>(k);
    for (const std::int32_t row : start) {
      std::int32_t later = -1;
      for (const std::int32_t parent :
           {p.male[static_cast<std::size_t>(row)] - 1, p.female[static_cast<std::size_t>(row)] - 1}) {
        if (parent >= 0 && (later < 0 || place(parent) > place(later))) later = parent;
      }
      if (later < 0 || at[static_cast<std::size_t>(later)] < at[static_cast<std::size_t>(row)]) continue;
      table.erase(place(row));
      table.insert(place(later) + 1, row);
      moved[static_cast<std::size_t>(row)] = again = true;
    }
  }
  return moved;
}

// Rows in any order end up behind their parents, those that need not move keep their order, and a row that
// moves stands behind its later parent with nothing but rows that moved in between.
TEST(SortPedigree, AnyOrderOfASoundPedigree)
{
  std::mt19937 random(3);
  for (int round = 0; round < 200; ++round) {
    constexpr std::int32_t n = 60;
    std::vector<std::int32_t> shuffled(n);
    for (std::int32_t i = 0; i < n; ++i) shuffled[static_cast<std::size_t>(i)] = i;
    std::shuffle(shuffled.begin(), shuffled.begin() + 3 * (round % 20 + 1), random);
    PEDIGREE p;
    NAME_CODES names;
    p.male.resize(n);
    p.female.resize(n);
    for (std::int32_t i = 0; i < n; ++i) p.id.push_back(names.add(static_cast<std::int64_t>(i)));
    for (std::int32_t i = 1; i < n; ++i) {  // shuffled[i] takes parents among shuffled[0 .. i - 1]
      const auto parent = [&] {
        const auto k = std::uniform_int_distribution<std::int32_t>(-1, i - 1)(random);
        return k < 0 ? 0 : shuffled[static_cast<std::size_t>(k)] + 1;
      };
      p.male[static_cast<std::size_t>(shuffled[static_cast<std::size_t>(i)])] = parent();
      p.female[static_cast<std::size_t>(shuffled[static_cast<std::size_t>(i)])] = parent();
    }
    const PEDIGREE before = p;
    ERROR_HANDLER eh;
    SORTPED(eh, names, p);
    ASSERT_FALSE(eh.terminate());
    const std::vector<bool> moved = moved_by_passes(before);
    std::int32_t last = -1;
    std::int32_t last_unmoved = -1;
    for (std::size_t k = 0; k < n; ++k) {
      const std::int32_t id = p.id[k];
      const auto old = static_cast<std::size_t>(id);
      for (const auto& [now, then] :
           {std::pair{p.male[k], before.male[old]}, std::pair{p.female[k], before.female[old]}}) {
        ASSERT_EQ(now > 0 ? p.id[static_cast<std::size_t>(now - 1)] + 1 : 0, then);
        ASSERT_LE(now, static_cast<std::int32_t>(k));
      }
      if (!moved[old]) {
        ASSERT_GT(id, last_unmoved);
        last_unmoved = id;
        last = static_cast<std::int32_t>(k) + 1;
      } else if (std::max(p.male[k], p.female[k]) < last) {
        // Its parents stand ahead of a row that did not move: it could have come earlier.
        ADD_FAILURE() << "row " << id;
      }
    }
  }
}

// All rows of one loop are told, in time linear in them.
TEST(SortPedigree, AMillionRowsInOneLoop)
{
  constexpr std::int32_t n = 1000000;
  PEDIGREE p;
  NAME_CODES names;
  names.expect_numbers(1, n, n);
  for (std::int32_t i = 0; i < n; ++i) p.id.push_back(names.add(static_cast<std::int64_t>(i) + 1));
  p.female.assign(static_cast<std::size_t>(n), 0);
  for (std::int32_t i = 0; i < n; ++i) p.male.push_back((i + 7919) % n + 1);
  ERROR_HANDLER eh;
  const double start = cpu_seconds();
  SORTPED(eh, names, p);
  EXPECT_LT(cpu_seconds() - start, 30.0);  // a second or two; more where memory is watched
  EXPECT_EQ(eh.count(), n + 1);
  EXPECT_EQ(eh.messages()[0].message, "Unable to sort pedigree so all parents are before their progeny.");
  EXPECT_EQ(eh.messages().back().message, "Individual 1000000 comes before its parents.");
}

TEST(AinverseRequest, EveryAllocationMayFail)
{
  const std::string document =
      R"({"id":["c",2,3,"x"],"male":[2,0,0,"c"],"female":["y",0,0,3],"sex":[0,0,1,1]})";
  for (std::int64_t good = 0;; ++good) {
    ERROR_HANDLER eh;
    AINV_OBJECT object;
    AINV_STORE_JSTR(eh, object, document);
    bool struck = false;
    bool room = true;
    {
      const FailingMemory failing(good, true);
      room = attempt([&] { AINV_PROCESS(eh, object); });
      struck = failing.struck();
    }
    if (!struck) {
      EXPECT_FALSE(eh.terminate()) << messages_text(eh);
      break;
    }
    if (room && !eh.terminate()) continue;  // a message text that found no room is no failure of the work
    ASSERT_TRUE(!room || has_message(eh, "memory")) << good << messages_text(eh);
  }
}

}  // namespace
}  // namespace tolvan_test
