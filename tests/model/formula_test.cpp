// Formula text against a table of cases, and against an independent expansion by set algebra.
#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <set>

#include "base/text.h"
#include "model/formula_text.h"
#include "support/checks.h"

namespace tolvan {
namespace {

std::string joined_messages(const ERROR_HANDLER& eh)
{
  std::vector<std::string> texts;
  for (const ERROR_MESSAGE& m : eh.messages()) texts.push_back(m.message.value_or(""));
  return join(texts, " | ");
}

std::string standardised(const COMMUNICATION& communication, std::string_view formula)
{
  ERROR_HANDLER eh;
  std::string result = STANDARDISE_FORMULA_STRING(eh, communication, formula);
  EXPECT_TRUE(eh.stack().entries.empty());
  if (!eh.terminate()) return result;
  EXPECT_EQ(result, "");
  return "! " + joined_messages(eh);
}

TEST(Formula, TableOfCases)
{
  std::ifstream file(TOLVAN_TEST_DATA "/formula_cases.tsv");
  ASSERT_TRUE(file);
  std::string line;
  int cases = 0;
  while (std::getline(file, line)) {
    if (line.starts_with("#")) continue;
    const std::vector<std::string> columns = split(line, '\t');
    ASSERT_EQ(columns.size(), 3u) << line;
    COMMUNICATION communication;
    CT_SET_DIALECT(communication, columns[0] == ".");
    EXPECT_EQ(standardised(communication, columns[1]), columns[2]) << "from " << columns[1];
    // What is canonical stays as it is, but for an operator that only the text of a suffix shows.
    if (columns[2][0] != '!' && columns[2].find_first_of(",|") == std::string::npos) {
      EXPECT_EQ(standardised(communication, columns[2]), columns[2]);
    }
    ++cases;
  }
  EXPECT_GE(cases, 200);
}

// ---- an independent expansion

/// A set of terms, each with its drop mark.
using Terms = std::set<std::pair<bool, std::string>>;

/// A random expression as text, with the terms that set algebra gives it.
struct Expression {
  std::string text;
  Terms terms;
  char top = 'a';  // its loosest operator: 'a' none, '+' for a sum with or without drops
};

Terms product(const Terms& left, const Terms& right)
{
  Terms out;
  for (const auto& [dropl, l] : left)
    for (const auto& [dropr, r] : right) out.insert({dropl || dropr, l + ":" + r});
  return out;
}

Terms join_sets(Terms left, const Terms& right)
{
  left.insert(right.begin(), right.end());
  return left;
}

class Grammar {
 public:
  explicit Grammar(unsigned seed) : random_(seed) {}

  Expression any(int depth, bool drops)
  {
    const int kind = depth == 0 ? 0 : pick(6);
    if (kind <= 1) return leaf();
    if (kind == 2) return sum(depth, drops);
    const char op = ":*/"[kind - 3];
    const Expression left = operand(any(depth - 1, drops && op == ':'), op),
                     right = operand(any(depth - 1, drops && op == ':'), op);
    const Terms crossed = product(left.terms, right.terms);
    Terms terms = crossed;
    if (op != ':') terms = join_sets(terms, left.terms);
    if (op == '*') terms = join_sets(terms, right.terms);
    return {left.text + op + right.text, terms, op};
  }

  Expression sum(int depth, bool drops)
  {
    const Expression left = any(depth - 1, drops), right = any(depth - 1, drops);
    const bool drop =
        drops && pick(3) == 0 && right.terms.size() == 1 && !right.terms.begin()->first && left.top != '+';
    Terms terms = left.terms;
    for (const auto& [d, t] : right.terms) terms.insert({d || drop, t});
    const std::string space(static_cast<std::size_t>(pick(2)), ' ');
    const std::string second = right.top == '+' || drop ? "(" + right.text + ")" : right.text;
    return {left.text + space + (drop ? "-" : "+") + space + second, terms, '+'};
  }

 private:
  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }

  Expression leaf()
  {
    static constexpr const char* names[] = {"a", "b", "c", "dd", "f(x)", "g(x,2)", "e_1"};
    const std::string name = names[pick(7)];
    return {name, {{false, name}}};
  }

  /// Brackets where the operand binds no tighter than the operator, and now and then where they change
  /// nothing.
  Expression operand(Expression e, char op)
  {
    const std::string order = "+*/:a";
    const bool needed = order.find(e.top) < order.find(op) || (e.top == op && op == '/');
    if (needed || pick(5) == 0) e.text = "(" + e.text + ")";
    if (pick(10) == 0) e.text = "(" + e.text + ")";
    return e;
  }

  std::mt19937 random_;
};

TEST(Formula, AgreesWithSetAlgebra)
{
  COMMUNICATION communication;
  Grammar grammar(20240117);
  for (int round = 0; round < 3000; ++round) {
    const Expression e = grammar.any(3, true);
    if (e.text.size() > 1000) continue;
    ERROR_HANDLER eh;
    const std::string canonical = STANDARDISE_FORMULA_STRING(eh, communication, e.text);
    ASSERT_TRUE(clean(eh)) << e.text;
    if (canonical.size() > 9000) continue;  // cut
    Terms found;
    for (const std::string& term : split_protected(canonical, '+'))
      found.insert(term[0] == '-' ? std::pair(true, term.substr(1)) : std::pair(false, term));
    ASSERT_EQ(found, e.terms) << e.text << " became " << canonical;
  }
}

TEST(Formula, LongAndDeepTextsAreCutOrRefused)
{
  COMMUNICATION communication;
  const std::string deep = std::string(1000000, '(') + "a" + std::string(1000000, ')');
  EXPECT_TRUE(standardised(communication, deep).ends_with("Error: Stack overflow."));
  const std::string nested = std::string(1000, '(') + "a" + std::string(1000, ')');
  EXPECT_EQ(standardised(communication, nested), "a");
  EXPECT_TRUE(standardised(communication, "(" + nested + ")").ends_with("Error: Stack overflow."));
  std::string calls;
  for (int i = 0; i < 400; ++i) calls += "f(";
  calls += "x" + std::string(400, ')');
  EXPECT_EQ(standardised(communication, calls), calls);

  const std::string name(1000000, 'n');
  EXPECT_EQ(standardised(communication, name).size(), term_capacity);
  std::string sum = "a", crossed = "a", groups = "(a+b)";
  for (int i = 0; i < 4000; ++i)
    sum += "+a", crossed += i < 900 ? "*a" : "", groups += i < 300 ? ":(a+b)" : "";
  EXPECT_EQ(standardised(communication, sum), sum);
  EXPECT_LE(standardised(communication, crossed).size(), formula_capacity);
  EXPECT_LE(standardised(communication, groups).size(), formula_capacity);
  EXPECT_EQ(standardised(communication, std::string(5000, 'a') + "(x)").size(), term_capacity);
  const std::string function = standardised(communication, std::string(100, 'f') + "(x)");
  EXPECT_EQ(function, std::string(function_name_capacity, 'f') + "(x)");
}

TEST(Formula, RandomBytesNeverCrash)
{
  std::mt19937 random(7);
  const std::string alphabet = "ab1_ .:+-*/|,=()[]{}\"'!\t\n\xC3\xA9\x01";
  for (bool sa : {false, true}) {
    COMMUNICATION communication;
    CT_SET_DIALECT(communication, sa);
    for (int round = 0; round < 4000; ++round) {
      std::string s(std::uniform_int_distribution<std::size_t>(0, 60)(random), ' ');
      for (char& c : s)
        c = alphabet[std::uniform_int_distribution<std::size_t>(0, alphabet.size() - 1)(random)];
      ERROR_HANDLER eh;
      STANDARDISE_FORMULA_STRING(eh, communication, s);
      ASSERT_TRUE(eh.stack().entries.empty()) << s;
    }
  }
}

}  // namespace
}  // namespace tolvan
