// A request as JSON text: into standard form, back into it, and into the factor and term tables.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "model/request.h"
#include "model/term_table.h"

namespace {

tolvan::VARIABLE_TABLE small_data()
{
  tolvan::VARIABLE_TABLE variables;
  for (const char* name : {"a", "b", "c", "x", "y", "z"}) {
    tolvan::VARIABLE v;
    v.name = name;
    if (v.name < "d") v.type = tolvan::FieldType::string_factor, v.levels = 2;
    for (std::int64_t l = 0; l < v.levels; ++l) v.labels.find_or_add(l == 0 ? "p" : "q");
    variables.rows.push_back(v);
  }
  return variables;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
  using namespace tolvan;
  static const VARIABLE_TABLE variables = small_data();
  JsonError failure;
  const auto root = parse_json({reinterpret_cast<const char*>(data), size}, failure);
  if (root == nullptr) return 0;
  const COMMUNICATION communication;
  ERROR_HANDLER eh;
  bool present = false;
  API_STANDARDISE_AND_EXPAND_JSON(eh, communication, root.get(), present);
  if (!eh.stack().entries.empty()) std::abort();
  if (eh.terminate() || !present) return 0;
  const auto again = root->clone();
  ERROR_HANDLER twice;
  API_STANDARDISE_AND_EXPAND_JSON(twice, communication, again.get(), present);
  if (twice.terminate() || json_text(*again) != json_text(*root)) std::abort();  // what is standard stays so

  FACTOR_TABLE factors;
  TERM_TABLE terms;
  MODEL_INFO info;
  NEW_PARSE_LINEAR_MODEL(eh, communication, *root, variables, factors, terms, info);
  if (!eh.terminate()) COMPLETE_LINEAR_MODEL(eh, communication, *root, variables, factors, terms, info);
  if (!eh.terminate()) SET_TERM_EQUATIONS(eh, variables, 10, 0, factors, terms);
  if (!eh.stack().entries.empty()) std::abort();
  return 0;
}
