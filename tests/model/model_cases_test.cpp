// Models in a table with the terms and factor rows that they stand for.
#include <gtest/gtest.h>

#include <charconv>
#include <fstream>
#include <random>

#include "base/numbers.h"
#include "base/text.h"
#include "model/function_catalogue.h"
#include "model/request.h"
#include "model/term_table.h"
#include "support/checks.h"

namespace tolvan {
namespace {

/// "geno:30 site:3[n,e,s] animal:9p x": factors with their level counts, labels and p for a pedigree; variates.
std::vector<VARIABLE> variables_of(std::string_view described)
{
  std::vector<VARIABLE> out;
  for (const std::string& each : split(described, ' ')) {
    VARIABLE v;
    const std::size_t colon = std::min(each.find(':'), each.size());
    v.name = each.substr(0, colon);
    if (colon < each.size()) {
      std::from_chars(each.data() + colon + 1, each.data() + each.size(), v.levels);
      v.type = FieldType::integer_factor_1_to_n;
      v.is_pedigree_factor = each.back() == 'p';
      if (const std::size_t open = each.find('['); open != std::string::npos) {
        v.type = FieldType::string_factor;
        for (const std::string& label : split(each.substr(open + 1, each.size() - open - 2), ',')) v.labels.find_or_add(label);
      }
    }
    out.push_back(std::move(v));
  }
  return out;
}

std::string list_text(const char* head, const std::vector<double>& values)
{
  std::string out;
  for (const double x : values) out += text(out.empty() ? head : ",", is_no_value(x) ? std::string("-") : text(x));
  return out;
}

/// The terms: "name code equations block", then the condition of a section, the group and structure of a linked term.
std::string terms_text(const TERM_TABLE& terms)
{
  std::string out;
  for (const TERM_ROW& t : terms.rows) {
    out += text(out.empty() ? "" : "; ", t.name, " ", t.code, " ", t.equations, " ", "yfrse"[static_cast<int>(t.block)]);
    if (t.condition > 0) out += text(" if ", t.condition);
    if (t.linked_head >= 0) out += text(" with ", t.linked_head, " ", t.structure_first, "-", t.structure_last);
  }
  return out;
}

/// The rows behind the variables and the reserved factors: "row name levels<source" and what else they hold.
std::string rows_text(const FACTOR_TABLE& factors)
{
  std::string out;
  for (std::int64_t i = 1; i <= factors.count(); ++i) {
    const FACTOR_ROW& f = factors.row(i);
    if (f.source == 0 && f.kind == 0) continue;
    out += text(out.empty() ? "" : "; ", i, " ", f.name, " ", f.levels, f.source > 0 ? text("<", f.source) : "");
    if (f.kind != 0) out += text(" kind ", f.kind);
    if (!f.structure.empty()) out += " " + f.structure;
    if (f.order > 0) out += text(" order ", f.order);
    if (f.second > 0) out += text(" second ", f.second);
    out += list_text(" init ", f.init) + list_text(" arguments ", f.arguments) + list_text(" dist ", f.dist);
    if (!f.matrix.empty()) out += " matrix " + f.matrix;
  }
  return out;
}

/// A model of the table: standardised, read, with the level counts that the data would tell; its messages where it is refused.
void read_case(const std::vector<std::string>& columns, std::string& terms_found, std::string& rows_found,
               const COMMUNICATION& communication = {})
{
  std::int64_t records = 0;
  std::from_chars(columns[1].data(), columns[1].data() + columns[1].size(), records);
  JsonError failure;
  const std::unique_ptr<JsonNode> root = parse_json(text(R"j({"model":{)j", columns[3], "}}"), failure);
  ASSERT_TRUE(root) << failure.message << " in " << columns[3];
  VARIABLE_TABLE variables;
  variables.rows = variables_of(columns[2]);
  ERROR_HANDLER eh;
  bool present = false;
  FACTOR_TABLE factors;
  TERM_TABLE terms;
  MODEL_INFO info;
  API_STANDARDISE_AND_EXPAND_JSON(eh, communication, root.get(), present);
  if (!eh.terminate()) {  // what is standard stays so
    ERROR_HANDLER again;
    const std::string standard = json_text(*root);
    API_STANDARDISE_AND_EXPAND_JSON(again, communication, root.get(), present);
    EXPECT_EQ(json_text(*root), standard) << columns[0];
  }
  if (!eh.terminate()) NEW_PARSE_LINEAR_MODEL(eh, communication, *root, variables, factors, terms, info);
  if (!eh.terminate()) COMPLETE_LINEAR_MODEL(eh, communication, *root, variables, factors, terms, info);
  if (!eh.terminate()) SET_TERM_EQUATIONS(eh, variables, records, 0, factors, terms);
  EXPECT_TRUE(eh.stack().entries.empty());
  if (!eh.terminate()) {
    terms_found = terms_text(terms);
    rows_found = rows_text(factors);
    return;
  }
  for (const ERROR_MESSAGE& m : eh.messages()) terms_found += (terms_found.empty() ? "! " : " | ") + m.message.value_or("");
}

TEST(ModelCases, TermsAndFactorRows)
{
  std::ifstream file(TOLVAN_TEST_DATA "/model_cases.tsv");
  ASSERT_TRUE(file);
  std::string line;
  int cases = 0;
  while (std::getline(file, line)) {
    if (line.empty() || line.starts_with("#")) continue;
    const std::vector<std::string> columns = split(line, '\t');
    ASSERT_EQ(columns.size(), 6u) << line;
    std::string terms, rows;
    read_case(columns, terms, rows);
    EXPECT_EQ(terms, columns[4]) << columns[0];
    EXPECT_EQ(rows, columns[5]) << columns[0];
    ++cases;
  }
  EXPECT_GE(cases, 100);
}

TEST(ModelCases, TheOtherDialectReadsTheSame)
{
  COMMUNICATION communication;
  CT_SET_DIALECT(communication, true);
  const std::vector<std::vector<std::string>> cases = {
      {"traits", "40", "geno:6 x y y2",
       R"j("response":"y y2","fixed":"Trait Trait.x","random":"us(Trait).id(geno)","residual":"id(units).us(Trait)")j",
       "y 3 0 y; y2 4 0 y; mu 5 1 f; Trait 7 2 f; Trait.x 20008 2 f; us(Trait).id(geno) 20010 12 r; id(units).us(Trait) 20012 0 e",
       "8 Trait 2<7; 9 x 1<2; 10 us(Trait) 2<7 us; 11 id(geno) 6<1 id; 12 id(units) 40<6 id; 13 us(Trait) 2<7 us"},
      {"sections", "40", "site:2[n,s] row:4 y", R"j("response":"y","fixed":"at(site,[1,2]).row","residual":"dsum(ar1(row).units|site)")j",
       "y 3 0 y; mu 4 1 f; at(site,n).row 20008 4 f; at(site,s).row 20010 4 f; sat(site,n).ar1(row).units 20014 0 e if 12; "
       "sat(site,s).ar1(row).units 20016 0 e if 13",
       "6 at(site,n) 1<1 kind 47 arguments 1; 7 at(site,s) 1<1 kind 47 arguments 2; 8 at(site,n) 1<6 kind 47 arguments 1; 9 row 4<2; "
       "10 at(site,s) 1<7 kind 47 arguments 2; 11 row 4<2; 12 sat(site,n) 1<1 kind 16 arguments 1; 13 sat(site,s) 1<1 kind 16 "
       "arguments 2; 14 ar1(row) 4<2 ar1; 15 units 40<5; 16 ar1(row) 4<2 ar1; 17 units 40<5"},
      {"linked", "40", "geno:6 x y", R"j("response":"y","random":"str(geno geno.x,us(2).id(geno))")j",
       "y 3 0 y; mu 4 1 f; geno 1 6 r with 2 8-9; geno.x 20006 6 r with 2 8-9",
       "6 geno 6<1; 7 x 1<2; 8 us(2) 2 kind 15 us; 9 id(geno) 6<1 kind 15 id"},
      {"no structure", "40", "geno:6 x y", R"j("response":"y","random":"str(geno geno.x)")j",
       "! argument vmodel is required | in the function call str(geno geno.x)", ""},
  };
  for (const std::vector<std::string>& columns : cases) {
    std::string terms, rows;
    read_case(columns, terms, rows, communication);
    EXPECT_EQ(terms, columns[4]) << columns[0];
    EXPECT_EQ(rows, columns[5]) << columns[0];
  }
}

/// Random models: functions of the catalogue with arguments that may or may not fit.
class ModelGrammar {
 public:
  explicit ModelGrammar(unsigned seed) : random_(seed) {}

  std::string part(int terms)
  {
    std::string out = term();
    for (int k = pick(terms); k > 0; --k) out += (pick(8) == 0 ? "-" : "+") + term();
    return out;
  }

 private:
  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }
  std::string name()
  {
    static constexpr const char* names[] = {"row", "col", "geno", "site", "x", "z", "units", "trait", "mu", "zz"};
    return names[pick(pick(4) == 0 ? 10 : 6)];
  }
  std::string number()
  {
    static constexpr const char* numbers[] = {"0", "1", "2", "3", "7", "-1", "0.5", "[1,2]", "[0.1,0.2,0.3]", "'north'", "[[1],[2]]"};
    return numbers[pick(11)];
  }
  std::string call(int depth)
  {
    const auto functions = model_functions();
    const MODEL_FUN_INFO& f = functions[static_cast<std::size_t>(pick(static_cast<int>(std::ssize(functions))))];
    std::string out(f.NAME);
    out += "(";
    const auto count = pick(5) == 0 ? f.NARGS() : f.NARGS_REQUIRED();
    for (std::int64_t k = 0; k < count; ++k) {
      const MODEL_ARG_INFO& a = f.ARGS[static_cast<std::size_t>(k)];
      out += k > 0 ? "," : "";
      if (a.NAME == "form" || a.NAME == "model") {
        out += factor(depth) + "+" + factor(depth);
      } else if (a.NAME == "vmodel") {
        out += pick(2) == 0 ? text("us(", pick(3) + 1, "):", factor(depth)) : text("id(", pick(40) + 1, ")");
      } else {
        const bool factor_wanted = a.TYPE == ArgType::term && a.NDIM == 0 && a.NAME != "k" && a.NAME != "levels" && a.NAME != "dist";
        out += factor_wanted || a.TYPE == ArgType::string ? (depth > 0 && pick(8) == 0 ? call(depth - 1) : name()) : number();
      }
    }
    return out + ")";
  }
  std::string factor(int depth) { return pick(3) == 0 ? name() : call(depth); }
  std::string term()
  {
    std::string out = factor(2);
    for (int k = pick(3); k > 0; --k) out += ":" + factor(1);
    return out;
  }

  std::mt19937 random_;
};

/// What holds of every model that is accepted, whatever its terms.
void check_tables(const FACTOR_TABLE& factors, const TERM_TABLE& terms, const std::string& model)
{
  std::int64_t equations = 0;
  for (const TERM_ROW& t : terms.rows) {
    const auto [from, to] = t.components();
    ASSERT_TRUE(1 <= from && from <= to && to <= factors.count()) << t.name << " of " << model;
    std::int64_t product = 1;
    for (std::int64_t i = from; i <= to; ++i) product *= factors.row(i).levels;
    for (std::int64_t i = from; t.code > 10000 && i <= to; ++i) ASSERT_TRUE(factors.row(i).copy) << t.name << " of " << model;
    if (t.block == Block::response || t.block == Block::residual) {
      ASSERT_EQ(t.equations, 0) << t.name;
      continue;
    }
    if (t.joins) {  // and(): onto the equations of the term before it
      ASSERT_EQ(t.equations, 0) << t.name << " of " << model;
      ASSERT_TRUE(t.first <= equations) << t.name << " of " << model;
      continue;
    }
    ASSERT_EQ(t.first, equations) << t.name << " of " << model;
    ASSERT_EQ(t.equations, product) << t.name << " of " << model;
    ASSERT_EQ(t.structure_first > 0, t.linked_head >= 0) << t.name;
    equations += t.equations;
  }
  ASSERT_EQ(terms.equations, equations) << model;
  for (std::int64_t i = 1; i <= factors.count(); ++i) {
    const FACTOR_ROW& f = factors.row(i);
    ASSERT_TRUE(f.source < i && f.second < i) << f.name << " of " << model;
    ASSERT_TRUE(!f.copy || (f.source > 0 && !factors.row(f.source).copy)) << f.name << " of " << model;
  }
}

TEST(ModelCases, RandomModelsAreReadOrRefused)
{
  ModelGrammar grammar(20240311);
  int accepted = 0;
  for (int round = 0; round < 6000; ++round) {
    static constexpr const char* parts[] = {"fixed", "random", "sparse", "residual"};
    const std::string model = text(R"j({"model":{"response":")j", round % 5 == 0 ? "y+y2" : "y", R"j(",")j", parts[round % 4],
                                   R"j(":")j", grammar.part(3), "\"}}");
    JsonError failure;
    const std::unique_ptr<JsonNode> root = parse_json(model, failure);
    ASSERT_TRUE(root) << model;
    VARIABLE_TABLE variables;
    variables.rows = variables_of("site:3[north,east,south] row:4 col:5 geno:6 x z y y2");
    const COMMUNICATION communication;
    ERROR_HANDLER eh;
    bool present = false;
    FACTOR_TABLE factors;
    TERM_TABLE terms;
    MODEL_INFO info;
    API_STANDARDISE_AND_EXPAND_JSON(eh, communication, root.get(), present);
    if (!eh.terminate()) NEW_PARSE_LINEAR_MODEL(eh, communication, *root, variables, factors, terms, info);
    if (!eh.terminate()) COMPLETE_LINEAR_MODEL(eh, communication, *root, variables, factors, terms, info);
    if (!eh.terminate()) SET_TERM_EQUATIONS(eh, variables, 20, 0, factors, terms);
    ASSERT_TRUE(eh.stack().entries.empty()) << model;
    for (const ERROR_MESSAGE& m : eh.messages()) {
      ASSERT_FALSE(m.message.value_or("").empty()) << model;
      ASSERT_NE(m.etype, Etype::internal) << m.message.value_or("") << " of " << model;
    }
    if (eh.terminate()) continue;
    ++accepted;
    check_tables(factors, terms, model);
    if (::testing::Test::HasFatalFailure()) return;
  }
  EXPECT_GE(accepted, 500);
}

}  // namespace
}  // namespace tolvan
