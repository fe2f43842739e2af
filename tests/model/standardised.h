// A request standardised, for the tests of the model language.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "base/text.h"
#include "model/request.h"
#include "support/checks.h"

namespace tolvan {

struct Standardised {
  std::unique_ptr<JsonNode> root;
  ERROR_HANDLER eh;
  bool model = false;
};

inline void standardise(std::string_view request, Standardised& out)
{
  JsonError error;
  out.root = parse_json(request, error);
  ASSERT_TRUE(out.root) << error.message << " in " << request.substr(0, 200);
  API_STANDARDISE_AND_EXPAND_JSON(out.eh, COMMUNICATION(), out.root.get(), out.model);
  EXPECT_TRUE(out.eh.stack().entries.empty());
}

/// The standard form, or the messages of a request that is refused.
inline std::string result_of(std::string_view request)
{
  Standardised s;
  standardise(request, s);
  if (!s.eh.terminate()) return json_text(*s.root);
  std::string all;
  for (const ERROR_MESSAGE& m : s.eh.messages()) all += (all.empty() ? "" : " | ") + m.message.value_or("");
  return all;
}

inline std::string with_model(std::string_view parts)
{
  return text(R"j({"model":{"response":"y",)j", parts, "}}");
}

/// Of the model {"response":"y", parts}: one part of its standard form, or the messages.
inline std::string part_of(std::string_view parts, const char* part)
{
  Standardised s;
  standardise(with_model(parts), s);
  if (s.eh.terminate()) return result_of(with_model(parts));
  const JsonNode* node = json_walk(*s.root, text("model:", part));
  return node == nullptr ? "absent" : json_text(*node);
}

}  // namespace tolvan
