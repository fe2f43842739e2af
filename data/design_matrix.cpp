// The compressed rows of the design.  Routines: DMT_SETUP, DMT_ADD_ROWS, DMT_RESIZE_TO.
#include "data/design_matrix.h"

#include "base/memory.h"

namespace tolvan {

namespace {

/// Gives memory back where a quarter or more of it is not used: shrinking copies, so little slack is left
/// alone.
template <class T>
void shrink(std::vector<T>& a)
{
  if (a.size() < a.capacity() / 4 * 3) a.shrink_to_fit();
}

}  // namespace

void DMT_SETUP(ERROR_HANDLER& eh, DESIGN_MTX& design, std::int64_t rows, std::int64_t elements_a_row)
{
  const Frame here{eh, __func__};
  design = {};
  constexpr std::int64_t element_bytes = sizeof(double) + sizeof(std::int32_t);
  constexpr std::int64_t row_bytes = 4 * sizeof(double);
  std::int64_t elements = 0;
  std::int64_t bytes = 0;
  std::int64_t index_bytes = 0;
  if (!multiply_sizes(rows, elements_a_row, elements) || !multiply_sizes(elements, element_bytes, bytes) ||
      !multiply_sizes(rows, row_bytes, index_bytes) || __builtin_add_overflow(bytes, index_bytes, &bytes)) {
    eh.out_of_memory();
    return;
  }
  if (bytes > machine_memory_bytes()) {
    eh.out_of_memory(bytes);
    return;
  }
  if (!reserve(eh, design.start, rows + 1) || !reserve(eh, design.response, rows) ||
      !reserve(eh, design.record, rows) || !reserve(eh, design.equation, elements)) {
    return;
  }
  reserve(eh, design.value, elements);
}

void DMT_ADD_ROWS(ERROR_HANDLER& eh, DESIGN_MTX& design, std::span<const std::int32_t> equations,
                  std::span<const double> values)
{
  const Frame here{eh, __func__};
  design.equation.insert(design.equation.end(), equations.begin(), equations.end());
  design.value.insert(design.value.end(), values.begin(), values.end());
  design.start.push_back(static_cast<std::int64_t>(design.equation.size()));
}

void DMT_RESIZE_TO(ERROR_HANDLER& eh, DESIGN_MTX& design)
{
  const Frame here{eh, __func__};
  shrink(design.start);
  shrink(design.equation);
  shrink(design.value);
  shrink(design.response);
  shrink(design.offset);
  shrink(design.weight);
  shrink(design.record);
}

}  // namespace tolvan
