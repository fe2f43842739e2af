// What the models and the driver share while a row is formed.
#include "varstruct/form_row.h"

#include <algorithm>

#include "base/text.h"
#include "varstruct/make_component.h"

namespace tolvan {

namespace {

constexpr double smallest_variance = 1e-18;

}  // namespace

void mark_correlations(FORM_CONTEXT& context, std::int64_t count)
{
  for (std::int64_t k = 0; k < count; ++k) parameter(context, k).type = ParamType::R;
}

std::vector<std::int64_t> pieces_of(const STRUCTURE_ROW& row, const VARIANCE_MODEL& model)
{
  std::vector<std::int64_t> pieces{0};
  if (row.segments >= 0) {
    for (const std::int64_t start : model.segments[static_cast<std::size_t>(row.segments)])
      if (start > pieces.back() && start < row.size) pieces.push_back(start);
  }
  if (row.size > 0) pieces.push_back(row.size);
  return pieces;
}

void check_pieces(ERROR_HANDLER& eh, const std::vector<std::int64_t>& pieces)
{
  const auto count = static_cast<std::int64_t>(pieces.size()) - 1;
  if (count < 2 || 2 * count <= pieces.back()) return;
  eh.EH_ADD_MESSAGE(
      {.text = "possible subsection error: Check order of data", .etype = Etype::warning, .unique = true});
}

void step_down(FORM_CONTEXT& context)
{
  STRUCTURE_ROW& row = context.row;
  VARIANCE_PARAMETER& gone = parameter(context, 0);
  gone.value = 0.0;
  gone.constraint = Constraint::F;
  ++row.first;
  --row.parameters;
  row.order = std::max<std::int64_t>(row.order, 1) - 1;
  if (row.order > 0) return;
  row.model = 0;
  row.sub_code = 0;
  if (row.parameters == 0) row.first = 0;
  if (row.parameters == 1) row.scale = row.first;
}

void floor_variance(VARIANCE_PARAMETER& variance)
{
  if (!(variance.value < smallest_variance)) return;
  variance.value = smallest_variance;
  variance.constraint = Constraint::P;
}

bool check_row_size(ERROR_HANDLER& eh, const STRUCTURE_ROW& row)
{
  return check_row_size(eh, row, row_parameters(row).fit ? row.parameters : -1);
}

bool check_row_size(ERROR_HANDLER& eh, const STRUCTURE_ROW& row, std::int64_t expected)
{
  if (row.parameters == expected) return true;
  eh.internal(text("size of structure seems wrong, nrow = ", row.size, ", gammas count = ", row.parameters));
  return false;
}

Formed failed_inversion(ERROR_HANDLER& eh, std::string_view what, std::int64_t leading_minor)
{
  eh.warning(text("failed to invert the ", what, " (leading minor order=", leading_minor, ")"));
  return Formed::in_handler;
}

}  // namespace tolvan
