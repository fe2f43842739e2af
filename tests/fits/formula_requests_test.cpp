// Formula text on its whole road: into a request, through a run of the set-up stages, out again as standard form.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "fits/host.h"

namespace {

using tolvan_test::dataset;
using tolvan_test::Host;

std::vector<std::string> columns_of(const std::string& line)
{
  std::vector<std::string> out{{}};
  for (const char c : line) {
    if (c == '\t') {
      out.emplace_back();
    } else {
      out.back() += c;
    }
  }
  return out;
}

std::string quoted(const std::string& s)
{
  std::string out = "\"";
  for (const char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

/// The texts of the messages, joined as the tables join them.
std::string messages_of(const std::string& json)
{
  std::string out;
  const std::string key = "\"message\":\"";
  for (std::size_t at = json.find(key); at != std::string::npos; at = json.find(key, at)) {
    out += out.empty() ? "! " : " | ";
    for (at += key.size(); json[at] != '"'; ++at) {
      if (json[at] == '\\') ++at;
      out += json[at];
    }
  }
  return out;
}

/// The set-up stages of a run for one part of the model; the response is y where it isn't that part.
///   stored   the model comes as a document of its own ahead of the run, else with the run
void set_up(Host& host, const std::string& part, const std::string& formula, bool stored)
{
  const std::string model = quoted(part) + ":" + quoted(formula) + (part == "response" ? "" : ",\"response\":\"y\"");
  host.info("{\"dataset\":" + dataset("d", 4, {{"a", 2}, {"b", 2}, {"c", 2}, {"d", 2}, {"x", 0}, {"y", 0}}) + "}");
  host.matrix("d", {1, 1, 2, 2, 1, 2, 1, 2, 1, 2, 2, 1, 1, 2, 1, 2, 0.5, 1, 2, 3, 1, 2, 4, 3}, 4, 6);
  const std::string request = "\"model\":{" + model + "}", stop = "\"options\":{\"process_stage\":\"preprocess\"}";
  if (stored) host.info("{" + request + "}");
  host.process("{" + (stored ? stop : request + "," + stop) + "}");
}

/// The standard form that a canonical sum of plain names and interactions must have: dropped terms and repeats gone.
std::string standard_form(const std::string& canonical)
{
  std::vector<std::string> terms, dropped;
  std::string term;
  const std::string text = canonical + "+";
  char quote = 0;
  for (const char c : text) {
    if (quote != 0 ? c == quote : c == '\'' || c == '"') quote = quote == 0 ? c : 0;
    if (c != '+' || quote != 0) {
      term += c;
      continue;
    }
    if (term.starts_with("-")) {
      std::erase(terms, term.substr(1));
    } else if (std::find(terms.begin(), terms.end(), term) == terms.end()) {
      terms.push_back(term);
    }
    term.clear();
  }
  std::string out;
  for (const std::string& each : terms) {
    std::vector<std::string> factors{{}};
    for (const char c : each) {
      if (quote != 0 ? c == quote : c == '\'' || c == '"') quote = quote == 0 ? c : 0;
      if (c == ':' && quote == 0) {
        factors.emplace_back();
      } else {
        factors.back() += c;
      }
    }
    std::string list;
    for (const std::string& factor : factors) {
      const bool in_quotes = factor.front() == '\'' || factor.front() == '"';
      const std::string name = quoted(in_quotes ? factor.substr(1, factor.size() - 2) : factor);
      const bool only_quoted = name.find_first_of(" +:'") != std::string::npos;
      list += (list.empty() ? "" : ",") + (only_quoted ? "{\"term_name\":" + name + "}" : name);
    }
    out += (out.empty() ? "" : ",") + (factors.size() > 1 ? "{\"interaction\":[" + list + "]}" : list);
  }
  return "[" + out + "]";
}

TEST(FormulaRequests, CanonicalFormsAndMessagesOfTheTable)
{
  std::ifstream file(TOLVAN_TEST_DATA "/formula_cases.tsv");
  ASSERT_TRUE(file);
  std::string line;
  int forms = 0, refusals = 0;
  while (std::getline(file, line)) {
    const std::vector<std::string> row = columns_of(line);
    if (row[0] != "+") continue;
    const std::string& canonical = row[2];
    if (canonical.starts_with("! ")) {
      for (const bool stored : {false, true}) {
        Host host;
        set_up(host, "random", row[1], stored);
        // A fault of brackets has told its term; others are followed by the formula.
        const bool told = canonical.find("Error: ") != std::string::npos;
        EXPECT_EQ(messages_of(host.errors()), canonical + (told ? "" : " | in the formula " + row[1])) << row[1];
      }
      ++refusals;
      continue;
    }
    const bool plain = canonical.find_first_of("([{,|=;0.12!#&^~<%") == std::string::npos && !canonical.empty() &&
                       std::count(canonical.begin(), canonical.end(), '\'') % 2 == 0 && canonical.find("''") == std::string::npos &&
                       std::count(canonical.begin(), canonical.end(), '"') % 2 == 0 && canonical.find("\"\"") == std::string::npos;
    if (!plain || standard_form(canonical) == "[]") continue;
    for (const bool stored : {false, true}) {
      Host host;
      set_up(host, "random", row[1], stored);
      EXPECT_EQ(host.json("INPUT_JSON:MODEL:RANDOM:TERMS"), standard_form(canonical)) << row[1];
    }
    ++forms;
  }
  EXPECT_GE(forms, 120);
  EXPECT_GE(refusals, 70);
}

TEST(FormulaRequests, StandardFormsOfTheTable)
{
  std::ifstream file(TOLVAN_TEST_DATA "/standard_forms.tsv");
  ASSERT_TRUE(file);
  std::string line;
  int cases = 0;
  while (std::getline(file, line)) {
    if (line.empty() || line.starts_with("#")) continue;
    const std::vector<std::string> row = columns_of(line);
    ASSERT_EQ(row.size(), 3U) << line;
    for (const bool stored : {false, true}) {
      Host host;
      set_up(host, row[0], row[1], stored);
      const std::string found = row[2].starts_with("! ") ? messages_of(host.errors()) : host.json("INPUT_JSON:MODEL:" + row[0] + ":TERMS");
      EXPECT_EQ(found, row[2]) << row[0] << " " << row[1];
    }
    ++cases;
  }
  EXPECT_GE(cases, 200);
}

}  // namespace
