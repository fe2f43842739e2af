// The report of a fit as one page that needs nothing beside itself.
#pragma once

#include <string>
#include <vector>

#include "app/engine.h"
#include "app/fit.h"
#include "app/messages.h"
#include "app/problem.h"
#include "app/request.h"

namespace tolvan::driver {

/// Writes the page: the model in words, what went well and what did not, the components, effects and figures of residuals;
/// where the residual is a field of two dimensions its map and sample variogram.  Written beside its place and renamed.
Problem write_html_report(Engine& engine, const FitArguments& arguments, const Request& request, const Messages& messages);

/// The residuals of a field in the places that two columns of the data name.
struct Field {
  std::string name, row_name, column_name;
  std::int64_t rows = 0, columns = 0;
  std::vector<double> cells;  // row after row; not a number for an empty cell
};
/// The fields of a fit whose residual terms are products of two dimensions, as its tables tell them.
///   residuals   by data record
std::vector<Field> residual_fields(Engine& engine, const std::vector<double>& residuals);
/// Half the mean squared difference of cells a displacement apart, for displacements up to half the field; rows of the answer
/// are displacements in rows.
std::vector<double> sample_variogram(const Field& field, std::int64_t& rows, std::int64_t& columns);

}  // namespace tolvan::driver
