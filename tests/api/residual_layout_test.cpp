// Residual sections: the place of every record, and what is wrong with a layout.
#include <algorithm>
#include <numeric>
#include <random>
#include <set>

#include "api/plots_data.h"

namespace tolvan {
namespace {

// Columns of the data.
enum Column : std::size_t { subject, time, site, row, column, env, geno, x, v, w, y, z, columns };

double& cell(std::vector<double>& a, std::size_t record, Column c)
{
  return a[record * columns + c];
}

std::vector<double> shuffled(unsigned seed)
{
  const std::vector<double> a = data_columns();
  std::vector<std::size_t> order(records);
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::shuffle(order.begin(), order.end(), std::mt19937(seed));
  std::vector<double> out;
  for (const std::size_t r : order)
    out.insert(out.end(), a.begin() + static_cast<std::ptrdiff_t>(r * columns),
               a.begin() + static_cast<std::ptrdiff_t>((r + 1) * columns));
  return out;
}

// Whatever the order of the file: section by section, the first component slowest, every array of the design
// moved along.
TEST(ResidualLayout, SortsTheDesign)
{
  struct Case {
    const char* residual;
    std::vector<Column> keys;  // from the slowest
  };
  for (const Case& c :
       {Case{"id(subject):ar1(time)", {subject, time}}, Case{"ar1(time):id(subject)", {time, subject}},
        Case{"site:ar1(row):ar1(column)", {site, row, column}},
        Case{"dsum(ar1(column):ar1(row)|site)", {site, column, row}},
        Case{"id(subject):exp(w)", {subject, w}},
        Case{"dsum(id(subject):exp(w)|site)", {site, subject, w}}}) {
    for (unsigned seed = 1; seed <= 3; ++seed) {
      SCOPED_TRACE(text(c.residual, " seed ", static_cast<std::int64_t>(seed)));
      std::vector<double> a = shuffled(seed);
      for (const std::size_t lost : {3u, 17u}) cell(a, lost, y) = no_value;
      SetupRoad road;
      run(road,
          request_of(
              text(R"("response":"y","fixed":"x","random":"geno","sparse":"mv","weights":"v","residual":")",
                   c.residual, "\"")),
          a);
      ASSERT_FALSE(road.eh.terminate()) << road.eh.EH_PRINT_TEXT();
      const DESIGN_MTX& d = road.core->design;
      ASSERT_EQ(d.rows(), records);
      std::vector<double> last;
      for (std::int64_t r = 0; r < records; ++r) {
        const auto at = static_cast<std::size_t>(d.record[static_cast<std::size_t>(r)] - 1);
        std::vector<double> key;
        for (const Column k : c.keys) key.push_back(cell(a, at, k));
        EXPECT_LT(last, key);
        last = key;
        // The rest of the row is that of its data record: x, the level of geno, response, weight, the
        // equation of mv.
        EXPECT_EQ(d.weight[static_cast<std::size_t>(r)], cell(a, at, v));
        const bool estimated = at == 3 || at == 17;
        EXPECT_EQ(d.response[static_cast<std::size_t>(r)], estimated ? 0.0 : cell(a, at, y));
        const auto equations = d.equations(r);
        const auto values = d.values(r);
        const std::size_t terms = cell(a, at, x) == 0.0 ? 2 : 3;  // mu, x, geno
        ASSERT_EQ(equations.size(), terms + (estimated ? 1 : 0));
        EXPECT_EQ(terms == 2 ? 0.0 : values[1], cell(a, at, x));
        EXPECT_EQ(equations[terms - 1] - 2 + 1, cell(a, at, geno));
        if (!estimated) continue;
        const auto k = static_cast<std::size_t>(equations.back() - 8);
        ASSERT_LT(k, d.mv.size());
        EXPECT_EQ(d.mv[k], r);
      }
      for (const RESIDUAL_SECTION& s : road.model().sections) {
        EXPECT_EQ(s.records, records / std::ssize(road.model().sections));
        EXPECT_EQ(s.first_record, s.records * (&s - road.model().sections.data()));
      }
    }
  }
}

TEST(ResidualLayout, SectionsOfDifferentSizesHaveTheirOwnLevels)
{
  std::vector<double> a = data_columns();
  // Site 2 loses its row 2: its rows are 1 and 3.
  std::vector<double> b;
  for (std::size_t r = 0; r < records; ++r) {
    if (cell(a, r, site) == 2 && cell(a, r, row) == 2) continue;
    b.insert(b.end(), a.begin() + static_cast<std::ptrdiff_t>(r * columns),
             a.begin() + static_cast<std::ptrdiff_t>((r + 1) * columns));
  }
  SetupRoad road;
  std::string request = request_of(R"j("response":"y","residual":"dsum(ar1(column):ar1(row)|site)")j");
  request.replace(request.find(R"("number_of_observations":24)"), 27, R"("number_of_observations":20)");
  run(road, request, b);
  ASSERT_FALSE(road.eh.terminate()) << road.eh.EH_PRINT_TEXT();
  std::vector<std::int64_t> sizes, firsts;
  for (const STRUCTURE_ROW& r : road.model().residual) sizes.push_back(r.size);
  EXPECT_EQ(sizes, (std::vector<std::int64_t>{4, 3, 4, 2}));
  EXPECT_EQ(road.model().sections[1].first_record, 12);
  EXPECT_EQ(road.model().sections[1].records, 8);
}

TEST(ResidualLayout, CoordinatesFollowTheLevels)
{
  struct Case {
    const char* residual;
    std::vector<double> x, y;  // of the first levels
  };
  for (const Case& c :
       {Case{"id(subject):exp(time,dist=[0,1.5,2,7])", {0, 1.5, 2, 7}, {}},
        Case{"id(subject):exp(time)", {1, 2, 3, 4}, {}}, Case{"id(subject):gau(w)", {0, 2, 4, 6}, {}},
        Case{"id(subject):iexp(w,time)", {0, 2, 4, 6}, {1, 2, 3, 4}},
        Case{"iexp(x,v)", {0, 0.5, 1}, {0, 1.75, 3.5}}}) {
    SCOPED_TRACE(c.residual);
    SetupRoad road;
    run(road, request_of(text(R"("response":"y","residual":")", c.residual, "\"")));
    ASSERT_FALSE(road.eh.terminate()) << road.eh.EH_PRINT_TEXT();
    const STRUCTURE_ROW& last = road.model().residual.back();
    ASSERT_GE(last.coordinates, 0);
    const COORDINATES& at = road.model().coordinates[static_cast<std::size_t>(last.coordinates)];
    EXPECT_EQ(std::ssize(at.x), last.size);
    for (std::size_t i = 0; i < c.x.size(); ++i) EXPECT_EQ(at.x[i], c.x[i]);
    ASSERT_EQ(at.y.empty(), c.y.empty());
    for (std::size_t i = 0; i < c.y.size(); ++i) EXPECT_EQ(at.y[i], c.y[i]);
  }
}

TEST(ResidualLayout, ShortDimensionsAreFixed)
{
  for (const auto& [limit, letters] :
       {std::pair{"", "PP"}, std::pair{R"("idlimit":3)", "FP"}, std::pair{R"("idlimit":2)", "PP"},
        std::pair{R"("idlimit":8)", "FF"}}) {
    SetupRoad road;
    run(road, request_of(R"j("response":"y","residual":"ar1(row):site:ar1(column)")j", limit));
    ASSERT_FALSE(road.eh.terminate()) << road.eh.EH_PRINT_TEXT();
    std::string found;
    for (const VARIANCE_PARAMETER& p : road.model().parameters) {
      if (p.type == ParamType::R) found += constraint_letters[static_cast<std::size_t>(p.constraint)];
    }
    EXPECT_EQ(found, letters) << limit;
    EXPECT_EQ(found != "PP",
              has_message(road.eh, "Short spatial dimension structure parameter fixed (!IDLIM)"));
  }
}

TEST(ResidualLayout, TellsWhatIsWrong)
{
  struct Case {
    const char* model;
    std::vector<const char*> messages;
    const char* options = "";
    std::vector<std::pair<std::pair<std::size_t, Column>, double>> edits = {};
    const char* replace = "";
    const char* by = "";
    bool stops = true;
  };
  const char* site2 = R"("name":"site","field_type":"vt_integer_factor_1_to_n","number_of_levels":2)";
  const char* site3 = R"("name":"site","field_type":"vt_integer_factor_1_to_n","number_of_levels":3)";
  const Case cases[] = {
      {R"j("response":"y","residual":"sat(site,1):units+sat(site,2):ar1(column):ar1(row)")j",
       {"you may not mix 1-way and 2-way R structures: sat(site,2):ar1(column):ar1(row) is not permitted"}},
      {R"j("response":"y","residual":"sat(site,1):units+sat(row,2):units")j",
       {"failed to verify order of sections"}},
      {R"j("response":"y","residual":"dsum(units|site)")j",
       {"gamma scale cannot be used when there are multiple error variances"},
       R"("varscale":0)"},
      {R"j("response":"y","residual":"id(subject):fa(time,1)")j",
       {"unacceptable residual term: id(subject):fa(time,1)"}},
      {R"j("response":"y","residual":"id(subject):pow(w,2)")j",
       {"unacceptable residual term: id(subject):pow(w,2)"}},
      {R"j("response":"y","residual":"id(subject):ar1(time)")j",
       {"the ASMV qualifier may only be used with a units.us() residual"},
       R"("asmv":4)"},
      {R"j("response":"y+z","residual":"units:diag(trait)")j",
       {"ASUV must be set since the multivariate residual is not units.us(Trait)"}},
      {R"j("response":"y+z","residual":"units")j",
       {"ASUV must be set since the multivariate residual is not units.us(Trait)"}},
      {R"j("response":"y+z","residual":"units:diag(trait)")j",
       {" You may not use ADJUST with ASUV"},
       R"("asuv":1,"adjust":1.0)"},
      {R"j("response":"y+z","fixed":"trait","residual":"units:us(trait)")j",
       {"include mv in the model if there are any missing values in the data",
        "there are 47 data records but the residual model implies 48 data records"},
       "",
       {{{5, y}, no_value}}},
      {R"j("response":"y+z","fixed":"trait")j",
       {"include mv in the model if there are any missing values in the data",
        "Error structures are the wrong size, they imply 48 data cells, but the data has 47"},
       "",
       {{{5, z}, no_value}}},
      {R"j("response":"y+z","fixed":"trait","residual":"diag(trait):units")j",
       {"note when specifying the residual the interaction operator is not commutative if one or more of the "
        "terms includes the units keyword"},
       R"("asuv":1)",
       {},
       "",
       "",
       false},
      {R"j("response":"y","residual":"ar1(time)")j",
       {"there are 24 data records but the residual model implies 4 data records",
        "R structures do not match records in data."}},
      {R"j("response":"y","residual":"row:column:time")j",
       {"there are 24 data records but the residual model implies 48 data records"}},
      {R"j("response":"y","residual":"ar1(subject):ar1(time)")j",
       {"Spatial Layout is not rectangular grid",
        "layout error in section 1: 1 of its 24 cells have no record"},
       "",
       {{{5, y}, no_value}}},
      {R"j("response":"y","residual":"ar1(subject):ar1(time)")j",
       {"Spatial Layout is not rectangular grid", "data record 6 falls on a place that another record has",
        "R structures do not match records in data."},
       "",
       {{{5, time}, 1.0}}},
      {R"j("response":"y","residual":"dsum(site:row:column|site)")j",
       {"layout error in section 2",
        "there are 11 data records but the residual model implies 12 data records"},
       "",
       {{{15, y}, no_value}}},
      {R"j("response":"y","residual":"site:row:column")j",
       {"layout error in section 1", "data record 16 falls on a place that another record has"},
       "",
       {{{15, column}, 1.0}}},
      // Data keep levels beyond the declared ones: next to the last, far out, in a section, of a distance.
      {R"j("response":"y","residual":"id(subject):ar1(time)")j",
       {"misspecification of model term ar1(time), actual number of levels exceeds the number declared [4], after processing 24 of 24 records",
        "level 5 of time in data record 24"},
       "",
       {{{23, time}, 5.0}}},
      {R"j("response":"y","residual":"ar1(subject):id(time)")j",
       {"misspecification of model term ar1(subject), actual number of levels exceeds the number declared [6]"},
       "",
       {{{0, subject}, 1e6}}},
      {R"j("response":"y","residual":"dsum(ar1(column):ar1(row)|site)")j",
       {"misspecification of model term ar1(row), actual number of levels exceeds the number declared [3]"},
       "",
       {{{13, row}, 4.0}}},
      {R"j("response":"y","residual":"id(subject):exp(time,dist=[1,2,4,8])")j",
       {"misspecification of model term exp(time), actual number of levels exceeds the number declared [4]"},
       "",
       {{{5, time}, 700.0}}},
      {R"j("response":"y","residual":"dsum(units|site)")j",
       {"Fewer sections of data than expected", "Data does not have 3 sections"},
       "",
       {},
       site2,
       site3},
      {R"j("response":"y","residual":"sat(site,2):ar1(column):ar1(row)")j",
       {"R structures do not match records in data.",
        "number of sections: 1, total size of sections: 12, number of rows in design matrix: 24"}},
      {R"j("response":"y","residual":"id(subject):ar1(time)")j",
       {"R structures do not match records in data.", "data record 8 has no level in time"},
       "",
       {{{7, time}, no_value}}},
      {R"j("response":"y","residual":"units")j",
       {"R structures inconsistent: 24 != 12"},
       R"("rowfactor":"row","columnfactor":"column")"},
      {R"j("response":"y","residual":"dsum(units|site)")j",
       {"!SECTION confusion: 4 != 2"},
       R"("section":"env")"},
      {R"j("response":"y","residual":"id(subject):ar1(time)")j",
       {"!ROWFAC confusion: 3 != 4"},
       R"("rowfactor":"row")"},
      {R"j("response":"y","residual":"id(subject):ar1(time)")j",
       {"!COLFAC confusion: 4 != 6"},
       R"("columnfactor":"column")"},
      {R"j("response":"y","residual":"id(subject):ar1(time)")j",
       {"the option section names nobody, which is not a factor of the data"},
       R"("section":"nobody")"},
      {R"j("response":"y","residual":"id(subject):ar1(time)")j",
       {"time is defined as a labelled factor, it may not sort the data correctly as labels are not sorted"},
       "",
       {},
       R"("name":"time","field_type":"vt_integer_factor_1_to_n","number_of_levels":4)",
       R"("name":"time","field_type":"vt_string_factor","factor_labels":["b","a","d","c"])",
       false},
      {R"j("response":"y","residual":"id(subject):exp(w)")j",
       {"5 unique points but expected to find 4 in the 24 records assigned to this section",
        "failed while setting up the power model"},
       "",
       {{{5, w}, 9.0}}},
      {R"j("response":"y","residual":"id(subject):exp(w)")j",
       {"24 records assigned to this section, expected to find 6 repeats of 4 coordinates"},
       "",
       {{{5, w}, 0.0}}},
      {R"j("response":"y","residual":"id(subject):exp(time,dist=[1,2,3])")j",
       {"wrong number of coordinates specified for exp(time)", "number expected = 4, number supplied = 3"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(text(c.model, " ", c.options));
    std::vector<double> a = data_columns();
    for (const auto& [where, value] : c.edits) cell(a, where.first, where.second) = value;
    std::string request = request_of(c.model, c.options);
    if (*c.replace != '\0') {
      const std::size_t at = request.find(c.replace);
      ASSERT_NE(at, std::string::npos);
      request.replace(at, std::string_view(c.replace).size(), c.by);
    }
    SetupRoad road;
    run(road, request, a);
    for (const char* message : c.messages) EXPECT_TRUE(has_message(road.eh, message));
    EXPECT_EQ(road.eh.EH_STATUS(), c.stops ? 4 : -3);
    EXPECT_TRUE(road.eh.stack().entries.empty());
  }
}

// Plots that the file does not have and plots given as missing make the same design, but for the records' numbers.
TEST(ResidualLayout, PlotsAreFilledInByOption)
{
  for (const char* missing : {"include", "remove"}) {
    SCOPED_TRACE(missing);
    const std::string model =
        R"j("response":"y","random":"geno","sparse":"mv","weights":"v","residual":"dsum(ar1(column):ar1(row)|site)")j";
    const std::string options = text(R"("rowfactor":"row","columnfactor":"column","missing_values":")", missing, "\"");
    const std::set<std::size_t> lost{4, 5, 17};
    std::vector<double> given = data_columns(), left;
    for (std::size_t r = 0; r < records; ++r) {
      const auto at = given.begin() + static_cast<std::ptrdiff_t>(r * columns);
      if (!lost.contains(r)) left.insert(left.end(), at, at + columns);
      if (lost.contains(r)) cell(given, r, y) = no_value;
    }
    SetupRoad whole, filled;
    run(whole, request_of(model), given);
    std::string request = request_of(model, options);
    request.replace(request.find(R"("number_of_observations":24)"), 27, R"("number_of_observations":21)");
    run(filled, request, left);
    ASSERT_FALSE(whole.eh.terminate() || filled.eh.terminate()) << filled.eh.EH_PRINT_TEXT();
    EXPECT_TRUE(has_message(filled.eh, "3 records being inserted to complete the grid"));
    const DESIGN_MTX &a = whole.core->design, &b = filled.core->design;
    ASSERT_EQ(b.rows(), records);
    EXPECT_EQ(a.response, b.response);
    EXPECT_EQ(a.mv, b.mv);
    EXPECT_EQ(filled.core->terms.equations, whole.core->terms.equations);
    for (std::int64_t r = 0; r < records; ++r) {
      const auto at = static_cast<std::size_t>(r);
      const bool made = b.record[at] > 21;
      EXPECT_EQ(made, lost.contains(static_cast<std::size_t>(a.record[at] - 1)));
      if (made) {
        EXPECT_EQ(b.equations(r).size(), 2u);  // mu and its own missing value; nothing is known of the variety
        EXPECT_EQ(b.weight[at], 1.0);
      } else {
        EXPECT_TRUE(std::ranges::equal(a.equations(r), b.equations(r)));
      }
    }
  }
}

TEST(ResidualLayout, TheOptionSectionSplitsTheResidual)
{
  SetupRoad road;
  run(road, request_of(R"j("response":"y","residual":"ar1(column):ar1(row)")j",
                       R"("section":"site","rowfactor":"row","columnfactor":"column")"));
  ASSERT_FALSE(road.eh.terminate()) << road.eh.EH_PRINT_TEXT();
  ASSERT_EQ(road.model().sections.size(), 2u);
  EXPECT_EQ(road.model().parameters[0].label, "sat(site,1):column:row;column.AR1_R");
  EXPECT_EQ(road.model().parameters[3].label, "sat(site,2):column:row;column.AR1_R");
}

}  // namespace
}  // namespace tolvan
