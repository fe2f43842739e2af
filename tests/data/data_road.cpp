#include "data/data_road.h"

#include "base/text.h"
#include "data/transform_record.h"

namespace tolvan {

void DataRoad::matrix(std::string_view name, std::int64_t rows, std::int64_t columns,
                      const std::vector<double>& values)
{
  UDST_ADD(eh, datasets, name, values.data(), rows, columns);
}

bool DataRoad::read(std::string_view json)
{
  JsonError failure;
  request = parse_json(json, failure);
  if (request == nullptr) {
    ADD_FAILURE() << failure.message << " at " << failure.position << " of " << json;
    return false;
  }
  bool has_model = false;
  API_STANDARDISE_AND_EXPAND_JSON(eh, communication, request.get(), has_model);
  if (eh.terminate()) return false;
  GET_PRIMARY_DATA_DESCRIPTION(eh, *request, datasets, primary);
  if (eh.terminate()) return false;
  UPDATE_OPTIONS_FROM_JPTR(eh, request->find("options"), options);
  if (eh.terminate()) return false;
  NEW_AIDTIN(eh, communication, primary.variables, variables);
  if (eh.terminate()) return false;
  PROCESS_DATA_TRANSFORMATIONS_FROM_JPTR(eh, request->find("transformations"), 0, variables);
  if (eh.terminate()) return false;
  INITFLL(eh, variables);
  if (eh.terminate()) return false;
  if (has_model) NEW_PARSE_LINEAR_MODEL(eh, communication, *request, variables, factors, terms, info);
  if (eh.terminate()) return false;
  READ_DATA_FILE(eh, primary, variables, store);
  if (eh.terminate()) return false;
  CHECKTRN(eh, variables);
  return !eh.terminate();
}

bool DataRoad::form(std::string_view json)
{
  if (!read(json)) return false;
  COMPLETE_LINEAR_MODEL(eh, communication, *request, variables, factors, terms, info);
  if (eh.terminate()) return false;
  FORM_DESIGN_BASES(eh, options, *request, datasets, {}, variables, store, factors);
  if (eh.terminate()) return false;
  CHECK_AND_CONFORMITY(eh, variables, store.records(), factors, terms);
  if (eh.terminate()) return false;
  SET_TERM_EQUATIONS(eh, variables, store.records(), 0, factors, terms);
  if (eh.terminate()) return false;
  AIDSGN(eh, options, variables, store, factors, terms, info, design);
  return !eh.terminate();
}

std::string DataRoad::rows() const
{
  std::string out;
  for (std::int64_t r = 0; r < store.records(); ++r) {
    std::string line;
    for (const double x : store.row(r)) line += is_no_value(x) ? std::string(" NA") : text(" ", x);
    out += line.substr(line.empty() ? 0 : 1) + "\n";
  }
  return out;
}

std::string DataRoad::design_rows() const
{
  std::string out;
  for (std::int64_t r = 0; r < design.rows(); ++r) {
    const auto equations = design.equations(r);
    const auto values = design.values(r);
    for (std::size_t k = 0; k < equations.size(); ++k) out += text(equations[k] + 1, ":", values[k], " ");
    out += text("| ", design.response[static_cast<std::size_t>(r)], "\n");
  }
  return out;
}

std::string DataRoad::labels(std::string_view variable)
{
  const VARIABLE& v = variables.row(variables.find(variable));
  std::string out;
  for (std::int64_t l = 1; l <= v.levels; ++l) out += (l > 1 ? " " : "") + GET_LEVEL_NAME(eh, v, l);
  return out;
}

}  // namespace tolvan
