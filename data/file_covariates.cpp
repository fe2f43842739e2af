#include "data/file_covariates.h"

#include "base/text.h"

namespace tolvan {

void READ_FILE_COVARIATES(ERROR_HANDLER& eh, const JsonNode&, const USER_DATASET_STORE&, const VARIABLE_TABLE&,
                          const FACTOR_TABLE& factors, std::int64_t row, DESIGN_BASIS&)
{
  const Frame here{eh, __func__};
  eh.not_implemented(text("the covariates of ", factors.row(row).name, " are not implemented yet"));
}

}  // namespace tolvan
