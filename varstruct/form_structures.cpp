// Forming the structures of one evaluation.  Routine: K4MVSF.
#include "varstruct/form_structures.h"

#include <algorithm>
#include <cmath>

#include "base/text.h"
#include "varstruct/form_row.h"
#include "varstruct/make_component.h"
#include "varstruct/stepped_down.h"

namespace tolvan {

namespace {

constexpr std::int64_t not_a_number = 999;
constexpr std::int64_t residual_is_zero = 280;
constexpr std::int64_t residual_is_negative = 2130;
constexpr std::int64_t structure_failed = 1000;  // plus the model's code
constexpr std::int64_t own_program_failed = 4;
constexpr std::int64_t metric_code = 6;
constexpr int step_downs = 20;                   // of one row in one evaluation

/// L_ROW_FAULT: the words for a row that could not be formed; gives the fault.
std::int64_t L_ROW_FAULT(ERROR_HANDLER& eh, const STRUCTURE_ROW& row, const std::string& name, Formed answer)
{
  const Frame here{eh, __func__};
  if (row.own >= 0 && eh.terminate()) return own_program_failed;
  const std::int64_t fault = structure_failed + std::max<std::int64_t>(row.model, 0);
  if (answer == Formed::zero_variance || eh.terminate()) return fault;
  const char* words = row.model < 6    ? "Correlation structure is not positive definite"
                      : row.model < 26 ? "Variance structure is not positive definite"
                                       : "Failed absorbing C matrix";
  bool told = false;
  eh.EH_ADD_MESSAGE({.text = words, .etype = Etype::warning, .unique = true, .is_duplicate = &told});
  if (!name.empty() && !told) eh.continuation(name);
  return fault;
}

/// L_FORM_ROW: forms one row, as a simpler model where it steps down; the fault is 0 when that went well.
std::int64_t L_FORM_ROW(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const std::string& name, std::int64_t iteration,
                        STRUCTURE_ROW& row, VARIANCE_MODEL& model, std::unique_ptr<COMPONENT_MATRIX>& component)
{
  const Frame here{eh, __func__};
  for (std::int64_t i = row.first; i < row.first + row.parameters; ++i) {
    if (!std::isfinite(model.parameters[static_cast<std::size_t>(i)].value)) return not_a_number;
  }
  for (int k = 0; k < step_downs; ++k) {
    STRUCTURE_ROW live = live_row(row);
    if (component == nullptr) component = behind_stepped(make_component(live, model), row.stepped);
    if (component == nullptr) {
      if (!check_row_size(eh, row)) return structure_failed;
      if (row.model == metric_code) {
        eh.internal("unhandled type with value 6");
      } else {
        eh.internal(text("undefined structure ", row.model, " in ", name));
      }
      return structure_failed;
    }
    FORM_CONTEXT context{.eh = eh,
                         .model = model,
                         .row = live,
                         .iteration = iteration,
                         .ar_limit = options(RealSlot::arlimit),
                         .bend = static_cast<double>(options(Slot::bend))};
    const Formed answer = component->form(context);
    switch (answer) {
      case Formed::done:
      case Formed::done_by_metric: return eh.terminate() ? structure_failed : 0;
      case Formed::again:  // the row has become a simpler model
        take_step_down(live, row);
        component.reset();
        continue;
      case Formed::in_handler:
      case Formed::zero_variance: return L_ROW_FAULT(eh, row, name, answer);
    }
    eh.internal(text("unexpected value for idks, idks=", static_cast<std::int64_t>(answer)));
    return structure_failed;
  }
  eh.internal(text("unexpected value for idks, idks=", static_cast<std::int64_t>(Formed::again)));
  return structure_failed;
}

/// L_FORM_ROWS: forms the rows of one product and sums its log-determinant: log|A x B| = size(B) log|A| + size(A) log|B|, by
/// the sizes that count.
std::int64_t L_FORM_ROWS(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const std::string& name, std::int64_t iteration,
                         std::vector<STRUCTURE_ROW>& rows, std::int64_t first, std::int64_t count, VARIANCE_MODEL& model,
                         COMPONENTS& components, std::int64_t& size, double& log_determinant)
{
  const Frame here{eh, __func__};
  components.resize(static_cast<std::size_t>(count));
  size = 1;
  for (std::int64_t r = 0; r < count; ++r) {
    const auto at = static_cast<std::size_t>(r);
    const std::int64_t fault = L_FORM_ROW(eh, options, name, iteration, rows[static_cast<std::size_t>(first + r)], model, components[at]);
    if (fault != 0) return fault;
    size *= components[at]->inverse().n;
  }
  log_determinant = 0.0;
  std::int64_t counted = 1;
  for (const auto& component : components) counted *= component->counted();
  for (const auto& component : components) {
    const std::int64_t n = component->counted();
    if (n > 0) log_determinant += component->log_determinant() * static_cast<double>(counted / n);
  }
  return 0;
}

}  // namespace

void K4MVSF(ERROR_HANDLER& eh, const FIT_OPTIONS& options, const TERM_TABLE& terms, VARIANCE_MODEL& model, std::int64_t iteration,
            FORMED& formed, std::int64_t& fault)
{
  const Frame here{eh, __func__};
  fault = 0;
  // A residual variance that vanishes has faults of its own, told before its structure is formed.
  if (model.residual_parameter >= 0) {
    const double own = model.parameters[static_cast<std::size_t>(model.residual_parameter)].value;
    if (!std::isfinite(own)) {
      fault = not_a_number;
    } else if (own <= 0.0) {
      fault = own == 0.0 ? residual_is_zero : residual_is_negative;
    }
    if (fault != 0) return;
  }
  formed.terms.resize(model.terms.size());
  for (std::size_t i = 0; i < model.terms.size(); ++i) {
    const TERM_STRUCTURE& structure = model.terms[i];
    if (structure.dropped) continue;
    FORMED_TERM& term = formed.terms[i];
    const std::string& name = terms.rows[static_cast<std::size_t>(structure.term)].name;
    fault = L_FORM_ROWS(eh, options, name, iteration, model.rows, structure.first_row, structure.rows, model, term.components, term.size,
                        term.log_determinant);
    if (fault != 0) return;
  }
  formed.sections.resize(model.sections.size());
  for (std::size_t i = 0; i < model.sections.size(); ++i) {
    const RESIDUAL_SECTION& section = model.sections[i];
    FORMED_SECTION& out = formed.sections[i];
    out.first = section.first_record;
    fault = L_FORM_ROWS(eh, options, section.name, iteration, model.residual, section.first_row, section.rows, model, out.components,
                        out.records, out.log_determinant);
    if (fault != 0) return;
    if (section.scale < 0) continue;
    out.scale = model.parameters[static_cast<std::size_t>(section.scale)].value;
    if (!std::isfinite(out.scale)) {
      fault = not_a_number;
    } else if (out.scale <= 0.0) {
      fault = residual_is_negative;
    }
    if (fault != 0) return;
    out.log_determinant += static_cast<double>(out.records) * std::log(out.scale);
  }
}

}  // namespace tolvan
