// Filling a spatial layout up before the design is formed.  Routine: COMPLETE_SPATIAL_GRID.
#include <algorithm>

#include "data/fill_grid.h"
#include "varstruct/residual_sections.h"

namespace tolvan {

namespace {

/// Whether a section has a component over the levels of a variable.
bool has_side(const FACTOR_TABLE& factors, const RESIDUAL_TERM& section, std::int64_t variable)
{
  return std::any_of(section.components.begin(), section.components.end(), [&](const RESIDUAL_COMPONENT& component) {
    return component.factor > 0 && factors.row(factors.original(component.factor)).variable == variable;
  });
}

bool names_factor(const JsonNode& request, std::string_view key)
{
  const JsonNode* options = request.find("options");
  const JsonNode* node = options != nullptr && options->is(JsonType::object) ? options->find(key) : nullptr;
  return node != nullptr && node->is(JsonType::string);
}

}  // namespace

void COMPLETE_SPATIAL_GRID(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const JsonNode& request,
                           const VARIABLE_TABLE& variables, const FACTOR_TABLE& factors, const TERM_TABLE& terms,
                           const MODEL_INFO& info, DATA_STORE& store)
{
  const Frame here{eh, __func__};
  if (!names_factor(request, "rowfactor") || !names_factor(request, "columnfactor")) return;
  ERROR_HANDLER unheard;  // what is wrong with the residual is told when it is read for good
  RESIDUAL_MODEL residual;
  NEW_GETRCOV(unheard, options, request, variables, factors, terms, info, residual);
  if (unheard.terminate()) return;
  for (const RESIDUAL_TERM& section : residual.sections) {
    if (!has_side(factors, section, residual.rowfactor) || !has_side(factors, section, residual.columnfactor)) return;
  }
  const std::int64_t condition = residual.sections.front().condition;
  FILLGRID(eh, variables,
           {.section = std::max<std::int64_t>(condition, 0), .row = residual.rowfactor, .column = residual.columnfactor},
           info.has_mv, store);
}

}  // namespace tolvan
