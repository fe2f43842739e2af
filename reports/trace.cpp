// The trace of the iterations: its table and the monitor.  Routines: HANDLE_TRACE, FINISH_TRACE.
#include <algorithm>

#include "base/json.h"
#include "base/text.h"
#include "reports/report_files.h"
#include "reports/result_tables.h"

namespace tolvan {

namespace {

constexpr std::string_view table_name = "TABLE_TRACE";
constexpr std::int64_t spare_rows = 20;           // for evaluations that are repeated
constexpr std::int64_t most_rows_at_once = 1000;  // a huge iteration limit is no reason for a huge table

/// L_REGISTER_TRACE: registers the table with its fixed columns.
void L_REGISTER_TRACE(ERROR_HANDLER& eh, std::int64_t iteration_limit, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  const std::int64_t id = OTST_REGISTER_TABLE(eh, store, table_name);
  if (eh.terminate()) return;
  OUTPUT_TABLE& t = store.table(id);
  OTT_ADD_COLUMN(eh, t,
                 {.type = ColumnType::integer, .name = "ITER", .heading = "iteration", .format = "I4"});
  OTT_ADD_COLUMN(eh, t, {.name = "LOGL", .heading = "LogL", .format = "G13.6"});
  OTT_ADD_COLUMN(eh, t, {.name = "SIGMA2", .heading = "sigma2", .format = "G12.5"});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::integer, .name = "DF", .heading = "DF", .format = "I9"});
  OTT_ADD_COLUMN(eh, t, {.name = "DEVDF", .heading = "Dev/DF", .format = "G12.4"});
  OTT_ADD_COLUMN(eh, t,
                 {.type = ColumnType::integer, .name = "NCON", .heading = "nconstrained", .format = "I4"});
  OTT_ADD_COLUMN(eh, t, {.type = ColumnType::string, .name = "FLG", .heading = "", .format = "A1"});
  if (eh.terminate()) return;
  const std::int64_t limit = std::clamp<std::int64_t>(iteration_limit, 0, most_rows_at_once);
  OTT_ALLOC_DATA_STORES(eh, t, limit + spare_rows);
}

}  // namespace

std::string monitor_json(const ITERATION_ROW& row)
{
  JsonNode top(JsonType::object);
  top.add_value("moninfo_type", "trace");
  top.add_value("iteration", row.iteration);
  top.add_value("logl", row.logl);
  top.add_value("sigma2", row.sigma2);
  top.add_value("df", row.df);
  top.add_value("time", row.seconds);
  top.add_value("conflb", row.largest_change);
  top.add_value("nconstrained", row.restrained);
  top.add_value("flag", std::string(1, row.flag));
  JsonNode& gammas = top.add("gammas", JsonType::array);
  for (const double g : row.gammas) gammas.append_number(g);
  return json_text(top);
}

void HANDLE_TRACE(ERROR_HANDLER& eh, COMMUNICATION& communication, const FIT_STATE& fit,
                  std::int64_t iteration_limit, FileWriter* report, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  if (fit.trace.empty()) return;
  if (fit.trace.size() == 1 || store.find_table(table_name) == nullptr)
    L_REGISTER_TRACE(eh, iteration_limit, store);
  if (eh.terminate()) return;
  OUTPUT_TABLE& t = *store.find_table(table_name);
  const ITERATION_ROW& row = fit.trace.back();
  if (report != nullptr && report->write(iteration_line(row))) report->show();
  OTT_NEXT_ROW(eh, t);
  OTT_SET_INTEGER_VALUES(eh, t, {row.iteration, row.df, row.restrained});
  OTT_SET_REAL_VALUES(eh, t, {row.logl, row.sigma2, row.dev_df});
  OTT_SET_STRING_VALUES(eh, t, {std::string_view(&row.flag, 1)});
  if (eh.terminate()) return;
  if (communication.monitor != nullptr) CT_MONITOR_FUNCTION(eh, communication, monitor_json(row));
}

void FINISH_TRACE(ERROR_HANDLER& eh, const FIT_STATE& fit, OUTPUT_TABLE_STORE& store)
{
  const Frame here{eh, __func__};
  OUTPUT_TABLE* t = store.find_table(table_name);
  if (t == nullptr) return;
  OTT_RESIZE(eh, *t, t->nrows);
  // LogL once more: it may have got another base since.
  std::vector<double> logl;
  for (const ITERATION_ROW& row : fit.trace) logl.push_back(row.logl);
  if (std::ssize(logl) == t->nrows) OTT_SET_COLUMN_REAL_WP(eh, *t, t->find_column("LOGL"), logl);
  if (eh.terminate()) return;
  std::size_t parameters = 0;
  for (const ITERATION_ROW& row : fit.trace) parameters = std::max(parameters, row.gammas.size());
  std::vector<double> values(static_cast<std::size_t>(t->nrows));
  for (std::size_t k = 0; k < parameters; ++k) {
    const std::string name = text("gammas_", k + 1);
    std::int64_t column = t->find_column(name);
    if (column == 0) column = OTT_ADD_COLUMN(eh, *t, {.name = name, .heading = name, .format = "G11.4"});
    if (eh.terminate()) return;
    for (std::size_t i = 0; i < values.size(); ++i) {
      const bool known = i < fit.trace.size() && k < fit.trace[i].gammas.size();
      values[i] = known ? fit.trace[i].gammas[k] : no_value;
    }
    OTT_SET_COLUMN_REAL_WP(eh, *t, column, values);
    if (eh.terminate()) return;
  }
}

}  // namespace tolvan
