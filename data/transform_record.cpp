#include "data/transform_record.h"

namespace tolvan {

void L_CALCULATE_LREAD(ERROR_HANDLER&, std::int64_t, VARIABLE_TABLE&) {}

bool AIDTRN(ERROR_HANDLER&, VARIABLE_TABLE&, LEVEL_CODING&, std::int64_t, std::span<double>)
{
  return true;
}

}  // namespace tolvan
