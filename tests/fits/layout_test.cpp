// Where terms stand in the equations: what is said of it, and that it changes nothing.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "fits/host.h"

namespace {

using tolvan_test::dataset;
using tolvan_test::Host;

struct Outcome {
  double logl = 0.0;
  int df = 0;
  int status = 0;
  std::string words;
};

Outcome run(const std::string& model, const std::string& options)
{
  constexpr int records = 60;
  std::mt19937 random(3);
  std::normal_distribution<double> normal;
  std::vector<double> values;
  for (const unsigned levels : {5U, 8U, 6U}) {
    for (int r = 0; r < records; ++r) values.push_back(static_cast<double>(random() % levels + 1));
  }
  for (int r = 0; r < records; ++r) values.push_back(values[static_cast<std::size_t>(r)] + normal(random));
  Host host;
  host.info("{\"dataset\":" + dataset("d", records, {{"a", 5}, {"b", 8}, {"g", 6}, {"y", 0}}) + "}");
  host.matrix("d", values, records, 4);
  Outcome out;
  out.status = host.process("{\"model\":{\"response\":\"y\"," + model + "},\"options\":{" + options + "}}");
  out.words = host.errors();
  out.logl = host.real("SCALAR_LOGLIK");
  out.df = host.integer("SCALAR_DF");
  return out;
}

TEST(Layout, BlocksAndOrdersLeaveTheFitAsItIs)
{
  const std::string crossed = R"("fixed":"a+b","random":"g")";
  const std::string part_sparse = R"("fixed":"a","sparse":"b","random":"g")";
  struct Case {
    std::string model, options;
    std::vector<std::string> said, unsaid;
  };
  const std::string full = "Too many fixed effects for the dense block.";
  const auto moved = [](const std::string& name) { return "fixed model term " + name + " is moved to the sparse block"; };
  const std::vector<Case> cases = {
      {crossed, R"("dense":14)", {}, {full}},
      {crossed, R"("dense":6)", {full, moved("b")}, {moved("a")}},
      {crossed, R"("dense":1)", {full, moved("a"), moved("b")}, {}},
      {crossed, R"("gdense":1)", {"g is included in the dense equations"}, {full}},
      {crossed, R"("gdense":-1)", {}, {"dense equations"}},
      {crossed, R"("gdense":1,"dense":6)", {full, moved("b"), "g is included in the dense equations"}, {}},
      {crossed, R"("isort":-1)", {}, {}},
      {crossed, R"("isort":6)", {}, {}},
      {part_sparse, R"("isort":0)", {}, {full}},
      {part_sparse, R"("dense":1,"gdense":1)", {full, moved("a")}, {moved("b")}},
  };
  const Outcome plain = run(crossed, R"("isort":0)");
  ASSERT_LT(plain.logl, 0.0) << plain.words;
  for (const Case& each : cases) {
    SCOPED_TRACE(each.model + " " + each.options);
    const Outcome found = run(each.model, each.options);
    EXPECT_NEAR(found.logl, plain.logl, 1e-9);
    EXPECT_EQ(found.df, plain.df);
    for (const std::string& words : each.said) EXPECT_NE(found.words.find(words), std::string::npos) << words;
    for (const std::string& words : each.unsaid) EXPECT_EQ(found.words.find(words), std::string::npos) << words;
  }
}

TEST(Layout, RefusesOrderingsThatItHasNot)
{
  for (const char* options : {R"("isort":7)", R"("isort":12)"}) {
    const Outcome found = run(R"("fixed":"a","random":"g")", options);
    EXPECT_GT(found.status, 0);
    EXPECT_NE(found.words.find("METIS no longer available in K4MITR"), std::string::npos);
    EXPECT_NE(found.words.find("unexpected value for ISORT in K4MITR"), std::string::npos);
  }
}

}  // namespace
