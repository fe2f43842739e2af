// The function catalogue against the table of its arguments, its place rules and value checks.
#include <gtest/gtest.h>

#include <fstream>
#include <map>

#include "base/text.h"
#include "model/function_catalogue.h"
#include "support/checks.h"

namespace tolvan {
namespace {

std::string flag(bool b)
{
  return b ? "1" : "0";
}

std::string default_text(const MODEL_ARG_INFO& a)
{
  if (!a.HAS_DEFAULT) return "";
  const auto real = [](double x) {
    std::string s = text(x);
    return s.find('.') == std::string::npos ? s + ".0" : s;
  };
  if (a.NDIM == 1) return text("(", real(a.RVAL), ",", real(a.RVAL2), ")");
  switch (a.TYPE) {
    case ArgType::integer:
      return text(a.IVAL);
    case ArgType::real:
      return real(a.RVAL);
    case ArgType::logical:
      return a.LVAL ? "true" : "false";
    default:
      return std::string(a.SVAL);
  }
}

TEST(FunctionCatalogue, HoldsEveryArgumentOfTheTable)
{
  std::ifstream file(TOLVAN_TEST_DATA "/functions.tsv");
  ASSERT_TRUE(file);
  std::string line;
  std::getline(file, line);
  std::map<std::string, std::size_t> column;
  for (const std::string& name : split(line, '\t')) column.emplace(name, column.size());
  std::map<std::string, std::int64_t> seen;
  ERROR_HANDLER eh;
  while (std::getline(file, line)) {
    const std::vector<std::string> row = split(line, '\t');
    const auto at = [&](const char* name) { return row.at(column.at(name)); };
    const MODEL_FUN_INFO info = GET_MODEL_FUNCTION_INFO(eh, at("function"));
    ASSERT_EQ(info.NAME, at("function"));
    EXPECT_EQ(text(info.NARGS(), ' ', info.NARGS_REQUIRED()), at("nargs") + " " + at("nargs_required"))
        << line;
    EXPECT_EQ(flag(info.IN_FUN) + flag(info.IN_INTER), at("in_fun") + at("in_inter")) << line;
    const std::string where = at("where");
    for (const char* part : {"response", "fixed", "random", "sparse", "residual"}) {
      const bool listed = (text(',', where, ',')).find(text(',', part, ',')) != std::string::npos;
      EXPECT_EQ(info.legal_in(part), where == "(all but response)" ? part != std::string("response") : listed)
          << line;
    }
    const MODEL_ARG_INFO& a = info.ARGS[static_cast<std::size_t>(seen[at("function")]++)];
    EXPECT_EQ(a.NAME, at("arg")) << line;
    EXPECT_EQ(text(static_cast<std::int64_t>(a.TYPE), a.NDIM), at("type_code") + at("ndim")) << line;
    EXPECT_EQ(default_text(a), at("default")) << line;
    EXPECT_EQ(flag(a.REQUIRED && !a.HAS_DEFAULT) + flag(a.DROP_FROM_FACNAME),
              at("required") + at("drop_from_facname"))
        << line;
    EXPECT_EQ(a.PAIRED, at("paired_with")) << line;
  }
  EXPECT_EQ(seen.size(), 103u);
  EXPECT_EQ(model_functions().size(), 103u);
  for (const MODEL_FUN_INFO& f : model_functions()) EXPECT_EQ(f.NARGS(), seen[std::string(f.NAME)]) << f.NAME;
}

TEST(FunctionCatalogue, NamesArePlacedAndSpeltExactly)
{
  const auto complaint = [](const char* function, const char* part, bool in_function, bool in_interaction) {
    ERROR_HANDLER eh;
    CHECK_FUNCTION_PLACE(eh, GET_MODEL_FUNCTION_INFO(eh, function), function, part, in_function,
                         in_interaction);
    return eh.EH_LAST_MESSAGE();
  };
  EXPECT_EQ(complaint("Ar1", "random", false, false), "Ar1 is not a recognised model function");
  EXPECT_EQ(complaint("", "random", false, false), " is not a recognised model function");
  EXPECT_EQ(complaint("offset", "random", false, true),
            "offset is not valid in the random part of the model");
  EXPECT_EQ(complaint("spl", "response", false, false), "spl is not valid in the response part of the model");
  EXPECT_EQ(complaint("offset", "fixed", true, true),
            "offset can not be used as an argument to a function call");
  EXPECT_EQ(complaint("offset", "fixed", false, true), "offset can not be used as part of an interaction");
  ERROR_HANDLER eh;
  CHECK_FUNCTION_PLACE(eh, GET_MODEL_FUNCTION_INFO(eh, "at"), "at", "response", true, true);
  EXPECT_TRUE(clean(eh));
}

TEST(FunctionCatalogue, ValuesFitTheirArguments)
{
  struct Case {
    const char* function;
    std::size_t argument;
    const char* value;
    const char* message;
  };
  const Case cases[] = {
      {"pol", 1, "2", ""},
      {"pol", 1, "2.0", "expected an integer scalar for argument \"t"},
      {"pol", 1, "[2]", "expected an integer scalar for argument \"t"},
      {"pow", 1, "2", ""},
      {"pow", 1, "\"2\"", "expected a real scalar for argument \"p"},
      {"vm", 2, "1", "expected a string scalar for argument \"singG"},
      {"vm", 3, "1", "expected a logical scalar for argument \"invert"},
      {"vm", 1, "\"dir/my.grm\"", ""},
      {"ar1", 1, "0.3", ""},
      {"ar1", 1, "[0.3,1]", ""},
      {"ar1", 1, "[0.3,\"a\"]", "expected a vector of reals for argument \"init"},
      {"ar1", 1, "true", "expected a vector of reals for argument \"init"},
      {"chol", 2, "[0.3]", "expected a real scalar for argument \"init"},
      {"at", 1, "[\"a level\",2]", ""},
      {"idv", 0, "\"x\"", ""},
      {"idv", 0, "\"units\"", ""},
      {"idv", 0, "\"1x\"", "an invalid variable name was supplied for argument \"variable_name"},
      {"idv", 0, "\"x.y\"", "an invalid variable name was supplied for argument \"variable_name"},
      {"idv", 0, "\"a:b\"", ""},
      {"idv", 0, "\"a:(b\"", "an invalid formula was supplied for argument\"variable_name"},
      {"idv", 0, "{\"name\":\"variable_name\"}", "value is required but was not found in the request"},
  };
  for (const Case& c : cases) {
    ERROR_HANDLER eh;
    JsonError error;
    const auto value = parse_json(c.value, error);
    ASSERT_TRUE(value) << c.value;
    MAT_VALIDATE(eh, COMMUNICATION(), GET_MODEL_FUNCTION_INFO(eh, c.function).ARGS[c.argument], *value,
                 c.function);
    EXPECT_EQ(eh.EH_LAST_MESSAGE(), c.message) << c.function << " " << c.value;
  }
}

}  // namespace
}  // namespace tolvan
