// The request tree: reading, writing, packed arrays, depth, bad texts, editing, short memory.
#include "base/json.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <random>

#include "base/clock.h"
#include "base/memory.h"
#include "base/text.h"
#include "support/checks.h"
#include "support/failing_memory.h"

namespace tolvan {
namespace {

std::unique_ptr<JsonNode> parsed(std::string_view source)
{
  JsonError error;
  auto tree = parse_json(source, error);
  EXPECT_NE(tree, nullptr) << error.message;
  return tree;
}

std::string fault(std::string_view source)
{
  JsonError error;
  const auto tree = parse_json(source, error);
  EXPECT_EQ(tree == nullptr, bool(error)) << source;
  return error.message;
}

const std::string sample =
    R"({"model":{"response":"y","fixed":["mu","a:b",{"interaction":["x","y"]}],"random":null},)"
    R"("predict":[1,2.5,-3],"predict":{"x":true,"y":false},"e":[],"o":{},"t":"q\"\\\/\b\f\n\r\t\u0001\u00e9\ud834\udd1e","n":[[1,2],[3.0,"z"]]})";

TEST(Json, KeepsOrderRepeatedKeysAndTheKindOfNumbers)
{
  const auto tree = parsed(R"( {"b":1,"a":1.0,"b":2,"c":[1,1.0,-0,1e2]} )");
  EXPECT_EQ(json_text(*tree), R"({"b":1,"a":1.0,"b":2,"c":[1,1.0,0,100.0]})");
  EXPECT_EQ(tree->count("b"), 2);
  EXPECT_EQ(tree->find("b")->integer(), 1);
  EXPECT_TRUE(tree->find("a")->is(JsonType::real));
  EXPECT_EQ(tree->find("A"), nullptr);
  const JsonNode& c = *tree->find("c");
  ASSERT_TRUE(c.packed());
  EXPECT_EQ(c.number_count(), 4);
  EXPECT_TRUE(c.is_integer(0));
  EXPECT_FALSE(c.is_integer(1));
  EXPECT_EQ(c.integer(1), 0) << "a real read as an integer";
  EXPECT_EQ(c.number(3), 100.0);
}

TEST(Json, WrittenTextReadsBackTheSame)
{
  const auto tree = parsed(sample);
  const std::string line = json_text(*tree);
  EXPECT_EQ(
      line,
      R"({"model":{"response":"y","fixed":["mu","a:b",{"interaction":["x","y"]}],"random":null},)"
      R"("predict":[1,2.5,-3],"predict":{"x":true,"y":false},"e":[],"o":{},"t":"q\"\\/\b\f\n\r\t\u0001é𝄞","n":[[1,2],[3.0,"z"]]})");
  EXPECT_EQ(json_text(*parsed(line)), line);
  EXPECT_EQ(json_text(*parsed(json_text(*tree, 2))), line);
  EXPECT_EQ(json_text(*tree->clone()), line);
  EXPECT_EQ(json_text(*parsed(R"({"a":{"b":[1,2.5]},"c":[]})"), 2),
            "{\n  \"a\": {\n    \"b\": [1, 2.5]\n  },\n  \"c\": []\n}");
}

TEST(Json, StringsThatAreNotUtf8StillGiveADocument)
{
  JsonNode node(JsonType::string);
  for (std::string_view bad : {"\x80", "\xC0\xAF", "\xED\xA0\x80", "\xF5\x80\x80\x80", "\xE2\x82"}) {
    node.set(text("a", bad, "b"));
    const std::string written = json_text(node);
    EXPECT_NE(written.find("\xEF\xBF\xBD"), written.npos);
    parsed(written);
  }
  node.set(std::string("a\0b", 3));
  EXPECT_EQ(json_text(node), R"("a\u0000b")");
  EXPECT_EQ(parsed(json_text(node))->text(), std::string("a\0b", 3));
}

TEST(Json, NumbersAtTheEdges)
{
  struct Case {
    const char* source;
    const char* written;
  };
  const Case cases[] = {
      {"9223372036854775807", "9223372036854775807"},
      {"-9223372036854775808", "-9223372036854775808"},
      {"9223372036854775808", "9223372036854775808.0"},
      {"-9223372036854775809", "-9223372036854775808.0"},
      {"123456789012345678901234567890", "1.2345678901234568e+29"},
      {"0.1", "0.1"},
      {"1.7976931348623157e308", "1.7976931348623157e+308"},
      {"5e-324", "5e-324"},
      {"2.2250738585072011e-308", "2.225073858507201e-308"},
      {"1e-400", "0.0"},
      {"-1e-400", "-0.0"},
      {"0.00000000001e-2147483639", "0.0"},
      {"0.0e99999999999", nullptr},
      {"1e309", nullptr},
      {"1.8e308", nullptr},
      {"17976931348623159e292", nullptr},
      {"-1e999999999999", nullptr},
  };
  for (const Case& each : cases) {
    if (each.written != nullptr) {
      EXPECT_EQ(json_text(*parsed(each.source)), each.written);
    } else {
      EXPECT_TRUE(fault(each.source).find("a number is too large at position 1") != std::string::npos)
          << each.source;
    }
  }
  std::mt19937_64 random(1);
  for (int k = 0; k < 20000; ++k) {
    const double x = std::bit_cast<double>(random());
    if (!std::isfinite(x)) continue;
    EXPECT_EQ(parsed(real_text(x))->number(), x);
  }
  EXPECT_EQ(real_text(std::nan("")), "null");
  EXPECT_EQ(real_text(3.0), "3.0");
}

TEST(Json, DepthIsLimitedTo1000Levels)
{
  for (const auto& [open, close] : {std::pair{"[", "]"}, std::pair{"{\"a\":", "}"}}) {
    std::string source;
    for (int k = 0; k < 1000; ++k) source += open;
    source += "1";
    for (int k = 0; k < 1000; ++k) source += close;
    EXPECT_EQ(json_text(*parsed(source)->clone()), source);
  }
  EXPECT_EQ(fault(std::string(1001, '[') + std::string(1001, ']')),
            "JSON is nested deeper than 1000 levels at position 1001");
  EXPECT_EQ(fault(std::string(1'000'000, '[')), "JSON is nested deeper than 1000 levels at position 1001");
}

TEST(Json, ATreeBuiltByHandMayBeDeeper)
{
  JsonNode root(JsonType::array);
  JsonNode* at = &root;
  for (int k = 0; k < 300'000; ++k) at = &at->add({}, JsonType::array);
  const auto copy = root.clone();
  EXPECT_EQ(json_text(*copy).size(), 600'002u);
  root.set_null();
}

TEST(Json, BadTextsAreToldWithTheirPosition)
{
  struct Case {
    std::string source;
    const char* message;
  };
  const Case cases[] = {
      {"", "invalid JSON: the text is empty at position 1"},
      {"  ", "invalid JSON: the text is empty at position 3"},
      {"{\"a\":1,}", "invalid JSON: a key in double quotes was expected at position 8"},
      {"{\"a\" 1}", "invalid JSON: a colon was expected after a key at position 6"},
      {"[1 2]", "invalid JSON: a comma or ] was expected after an element at position 4"},
      {"[1,]", "invalid JSON: a value was expected at position 4"},
      {"{} x", "invalid JSON: more text follows the end of the document at position 4"},
      {std::string("{}\0", 3), "invalid JSON: more text follows the end of the document at position 3"},
      {std::string("[1,\0 2]", 7), "invalid JSON: a value was expected at position 4"},
      {std::string("\"a\0b\"", 5), "invalid JSON: a string is not closed at position 3"},
      {"\"a\nb\"",
       "invalid JSON: a string holds an unknown escape or a bare control character at position 3"},
      {"\"\\x\"", "invalid JSON: a string holds an unknown escape or a bare control character at position 2"},
      {"\"\xC3(\"", "invalid JSON: a string is not in UTF-8 at position 2"},
      {"\"\\ud834\"", "invalid JSON: a surrogate pair in a string is not complete at position 2"},
      {"[1.]", "invalid JSON: digits were expected after the decimal point at position 4"},
      {"nul", "invalid JSON: a value was expected at position 4"},
      {"NaN", "invalid JSON: a value was expected at position 1"},
      {"01", "invalid JSON: more text follows the end of the document at position 2"},
  };
  for (const Case& each : cases) EXPECT_EQ(fault(each.source), each.message) << each.source;
  EXPECT_EQ(json_text(*parsed("\xEF\xBB\xBF{}")), "{}") << "a byte-order mark is passed over";
  for (std::size_t n = 0; n < sample.size(); ++n) EXPECT_NE(fault(sample.substr(0, n)), "") << n;
}

TEST(Json, MutatedTextsNeverCrash)
{
  std::mt19937 random(7);
  const std::string characters = text("{}[]\",:0123456789.eE+-\\u tfn\n\x80\xC3", '\0');
  for (int k = 0; k < 20000; ++k) {
    std::string source = sample;
    for (unsigned edits = 1 + random() % 4; edits > 0; --edits) {
      const std::size_t at = random() % source.size();
      switch (random() % 3) {
        case 0:
          source[at] = characters[random() % characters.size()];
          break;
        case 1:
          source.insert(at, 1, characters[random() % characters.size()]);
          break;
        default:
          source.erase(at, 1 + random() % 8);
      }
      if (source.empty()) source = "[";
    }
    JsonError error;
    const auto tree = parse_json(source, error);
    ASSERT_EQ(tree == nullptr, bool(error));
    if (tree == nullptr) continue;
    EXPECT_EQ(json_text(*parsed(json_text(*tree))), json_text(*tree));
  }
}

TEST(Json, AnArrayOfNumbersTakesEightBytesEach)
{
  constexpr std::int64_t n = 1'000'000;
  std::string source = "{\"a\":[";
  for (std::int64_t k = 0; k < n; ++k) source += text(k > 0 ? "," : "", k);
  source += "]}";
  const std::int64_t before = bytes_in_use();
  reset_peak_bytes();
  const auto tree = parsed(source);
  EXPECT_LT(bytes_in_use() - before, 8 * n + 5000);
  EXPECT_LT(peak_bytes() - before, 8 * n + 5000) << "also while it is read";
  EXPECT_EQ(tree->find("a")->number_count(), n);
  EXPECT_EQ(tree->find("a")->integer(n - 1), n - 1);
  EXPECT_EQ(json_text(*tree), source);
}

TEST(Json, PackedArraysUnpackWhenNeeded)
{
  const auto tree = parsed(R"([1,2.5,9007199254740993])");
  EXPECT_TRUE(tree->packed());
  EXPECT_EQ(tree->element(2).integer(), 9007199254740993);
  EXPECT_FALSE(tree->packed());
  EXPECT_EQ(tree->number(1), 2.5) << "the element readers serve both forms";
  EXPECT_EQ(json_text(*tree), "[1,2.5,9007199254740993]");
  EXPECT_EQ(tree->element(0).parent(), tree.get());
  const auto mixed = parsed(R"([1,2,"x",3])");
  EXPECT_FALSE(mixed->packed());
  EXPECT_EQ(json_text(*mixed), R"([1,2,"x",3])");
  EXPECT_FALSE(parsed("[ ]")->packed());
  JsonNode list(JsonType::array);
  for (int k = 0; k < 100; ++k) {
    if (k % 3 == 0)
      list.append_number(static_cast<double>(k));
    else
      list.append_number(static_cast<std::int64_t>(k));
  }
  for (int k = 0; k < 100; ++k) {
    EXPECT_EQ(list.is_integer(k), k % 3 != 0);
    EXPECT_EQ(list.number(k), k);
  }
}

TEST(Json, EditingKeepsTheTreeInOrder)
{
  const auto tree = parsed(R"({"a":1,"b":{"x":[1,"y"]},"c":3})");
  JsonNode& b = *tree->find("b");
  tree->insert(1, std::make_unique<JsonNode>(JsonType::null, "new"));
  EXPECT_EQ(tree->index_of(&b), 2);
  const auto taken = tree->remove("a");
  EXPECT_EQ(taken->parent(), nullptr);
  EXPECT_EQ(tree->detach(taken.get()), nullptr);
  b.replace_with(parsed(R"(["p",{"q":[7]}])"));
  b.add_value("", std::int64_t{5});
  EXPECT_EQ(json_text(*tree), R"({"new":null,"b":["p",{"q":[7]},5],"c":3})");
  EXPECT_EQ(json_path(*b.children()[1]->find("q")), "b[2].q");
  EXPECT_EQ(json_path(*tree), "");
  EXPECT_EQ(b.children()[1]->parent(), &b);
  JsonNode moved(std::move(b));
  EXPECT_EQ(moved.children()[1]->parent(), &moved);
  EXPECT_EQ(json_text(*tree), R"({"new":null,"":null,"c":3})");
}

TEST(Json, WalkByPath)
{
  const auto tree = parsed(R"({"Model":{"fixed":["mu",{"name":"x"}],"n":[10,20]}})");
  EXPECT_EQ(json_walk(*tree, "MODEL:FIXED:2:NAME ")->text(), "x");
  EXPECT_EQ(json_walk(*tree, "model:n:2")->integer(), 20);
  EXPECT_EQ(json_walk(*tree, ""), tree.get());
  for (const char* absent : {"model:fixed:0", "model:fixed:3", "model:fixed:x", "mode", "model:n:1:z", ":"}) {
    EXPECT_EQ(json_walk(*tree, absent), nullptr) << absent;
  }
}

// Each failing allocation flies as bad_alloc, through the reader too, and leaves nothing behind.
TEST(Json, ShortMemoryLeavesNothingBehind)
{
  bool struck = true;
  std::int64_t good = 0;
  for (; struck; ++good) {
    const std::int64_t before = bytes_in_use();
    {
      const FailingMemory failing(good);
      attempt([&] {
        JsonError error;
        const auto tree = parse_json(sample, error);
        const auto copy = tree->clone();
        copy->find("predict")->unpack();
        json_text(*copy, 2);
      });
      struck = failing.struck();
    }
    EXPECT_EQ(bytes_in_use(), before) << good;
  }
  EXPECT_GT(good, 50);
}

TEST(Json, TimeGrowsWithTheText)
{
  const auto seconds = [](int n) {
    std::string source = "[";
    for (int k = 0; k < n; ++k) source += text(k > 0 ? "," : "", R"({"a":["x",1,[2,"y"]]})");
    source += "]";
    double best = 1e9;
    for (int round = 0; round < 3; ++round) {
      const double start = cpu_seconds();
      json_text(*parsed(source));
      best = std::min(best, cpu_seconds() - start);
    }
    return best;
  };
  EXPECT_LT(seconds(80'000), 30.0 * seconds(10'000)) << "eight times the text";
}

}  // namespace
}  // namespace tolvan
