#include "data/damaged_file.h"

#include <cmath>
#include <cstring>
#include <vector>

#include "api/communication.h"
#include "base/text.h"
#include "data/read_data.h"
#include "support/damage.h"

namespace tolvan {

namespace {

constexpr std::string_view text_variables =
    R"([{"name":"gen","field_type":"vt_string_factor"},{"name":"rep","field_type":"vt_integer_factor"},
        {"name":"yield"},{"name":"sown","field_type":"vt_date"},{"name":"at","field_type":"vt_time"},
        {"name":"plot","field_type":"vt_integer_factor_1_to_n"}])";
constexpr std::string_view number_variables =
    R"([{"name":"gen","field_type":"vt_string_factor","factor_labels":["A","B"]},{"name":"yield"},
        {"name":"plot","field_type":"vt_integer_factor_1_to_n"}])";

template <class Number>
std::string numbers(bool marked)
{
  std::string out;
  const auto add = [&out](const void* x, std::size_t n) { out.append(static_cast<const char*>(x), n); };
  for (const auto& row : {std::vector{1.0, 5.25, 1.0}, std::vector{2.0, no_value, 2.0},
                          std::vector{no_value, -1e3, 3.0}, std::vector{1.0, 0.0, 70000.0}}) {
    const auto length = static_cast<std::uint32_t>(row.size() * sizeof(Number));
    if (marked) add(&length, sizeof length);
    for (const double x : row) {
      const auto number = static_cast<Number>(x);
      add(&number, sizeof number);
    }
    if (marked) add(&length, sizeof length);
  }
  return out;
}

std::vector<READ_CASE> make_cases()
{
  const std::string texts(text_variables);
  const std::string coded(number_variables);
  std::vector<READ_CASE> cases = {
      {"csv.csv", R"("filter":2,"exclude":"9")", texts,
       "A,1,5.25,12/3/2020,10:30:00,1\n\"B c\",2,-1e3,1/Apr/99,0:0,2\n  ,NA,.5,,NA,3\nLong "
       "label,3,*,1-1-1900,23:59:59,4\n"
       "\"q\"\"q\",1,7,2/2/02,,5\r\nA,2,,,,6\n!SPECIALCHAR\nA#,1,6 &\n,,,7\nB,9,1,,,8\n",
       7},
      {"dsv.csv", "", texts, "A;1;5,25;12/3/2020;10:30;1\n\"B;c\";2;-1,5e3;;;2\nC;1;0,5;31-12-20;;3\n", 3},
      {"text.txt", R"("print":true)", texts,
       "A 1 5.25 12/3/2020 10:30:00 1\n\"B c\", 2, -1e3, NA , 0:0 2 # remark\n , NA .5 * * &\n3\n"
       "!ASSIGN now !< a\nb !>\nC 3 *, 1-Jan-1900,\n23:59 4\n\tD\t1\t7\t2/2/02\t.\t5\n!STOP\nmore\n",
       5},
      {"columns.txt", R"x("format":"(A2,X,I2,F5.2/A10,T12,A5,1X,G3.0)")x", texts,
       "A  01  525\n12/03/2020 10:30 001\nB  02-1.5 \n01-04-1999  0:0  2\n   NA 1.0\n*          NA     3\n",
       3},
      {"bin.bin", "", coded, numbers<float>(true), 4},
      {"srs.srs", R"("skip":0)", coded, numbers<float>(false), 4},
      {"dbl.dbl", R"("filter":1,"select":1)", coded, numbers<double>(true), 2},
      {"drs.drs", "", coded, numbers<double>(false), 4},
      {"dpr.dpr", R"("filter":"yield","exclude":0)", coded, numbers<double>(true), 3},
  };
  return cases;
}

/// What is wrong with the rows of the store.
std::string check_rows(const VARIABLE_TABLE& variables, const DATA_STORE& store)
{
  for (std::int64_t r = 0; r < store.records(); ++r) {
    for (std::size_t v = 0; v < variables.rows.size(); ++v) {
      const double x = store.row(r)[v];
      const VARIABLE& variable = variables.rows[v];
      const std::string where = text("record ", r + 1, ", ", variable.name, " = ", x);
      if (!std::isfinite(x)) return where + " is not finite";
      if (!variable.is_factor() || is_no_value(x)) continue;
      if (x < 1.0 || x != std::floor(x)) return where + " is no level";
      if (!variable.labels_fixed && x > static_cast<double>(variable.levels))
        return where + " is no known level";
    }
  }
  return {};
}

/// What is missing in the messages about a file that could not be read.
std::string check_messages(const ERROR_HANDLER& eh, const std::string& path)
{
  std::string all;
  for (const auto& message : eh.messages()) all += message.message.value_or("") + "\n";
  const bool placed =
      all.find("record ") != all.npos && (all.find("line ") != all.npos || all.find("byte") != all.npos);
  if (all.find(path) == all.npos || !placed) return "no file, record and line in: " + all;
  return {};
}

}  // namespace

std::span<const READ_CASE> read_cases()
{
  static const std::vector<READ_CASE> cases = make_cases();
  return cases;
}

const READ_CASE& read_case(std::string_view name)
{
  for (const READ_CASE& one : read_cases()) {
    if (one.name.starts_with(name)) return one;
  }
  return read_cases().front();
}

std::string read_bytes(const READ_CASE& as, const std::string& path, std::string_view bytes,
                       std::int64_t* records)
{
  if (!write_over(path, bytes)) return "the file could not be written";
  JsonError failure;
  const auto request = parse_json(text(R"({"data_file":{"name":")", path, as.keys.empty() ? "\"" : "\",",
                                       as.keys, "},\"variables\":", as.variables, "}"),
                                  failure);
  if (request == nullptr) return failure.message;
  ERROR_HANDLER eh;
  const COMMUNICATION communication;
  PRIMARY_DATA primary;
  VARIABLE_TABLE variables;
  DATA_STORE store;
  GET_PRIMARY_DATA_DESCRIPTION(eh, *request, {}, primary);
  if (!eh.terminate()) NEW_AIDTIN(eh, communication, primary.variables, variables);
  if (!eh.terminate()) INITFLL(eh, variables);
  if (!eh.terminate()) READ_DATA_FILE(eh, primary, variables, store);
  if (records != nullptr) *records = eh.terminate() ? -1 : store.records();
  if (!eh.stack().entries.empty()) return "the routine stack is not empty";
  return eh.terminate() ? check_messages(eh, path) : check_rows(variables, store);
}

}  // namespace tolvan
