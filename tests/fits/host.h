// A host of the engine for tests: the exports behind a small class.  Uses the public header alone.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvan/tolvan_api.h"

namespace tolvan_test {

class Host {
 public:
  explicit Host(const std::string& spec = "TLV")
  {
    ctlv_initialise(&status, &handle, spec.data(), static_cast<std::int32_t>(spec.size()));
  }
  ~Host() { ctlv_cleanup(&handle); }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  int info(std::string_view json)
  {
    ctlv_input_info(&status, &handle, json.data(), static_cast<std::int32_t>(json.size()));
    return status;
  }
  /// values by columns
  int matrix(std::string_view name, const std::vector<double>& values, int rows, int columns)
  {
    const std::int32_t r = rows;
    const std::int32_t c = columns;
    ctlv_input_real_2d(&status, &handle, name.data(), static_cast<std::int32_t>(name.size()), values.data(), &r, &c);
    return status;
  }
  int process(std::string_view json = {})
  {
    ctlv_process(&status, &handle, json.data(), static_cast<std::int32_t>(json.size()));
    return status;
  }
  std::vector<double> reals(std::string_view id)
  {
    std::int32_t n = 0;
    ctlv_output_real(&status, &handle, id.data(), static_cast<std::int32_t>(id.size()), nullptr, &n);
    std::vector<double> out(static_cast<std::size_t>(n > 0 ? n : 0));
    if (n > 0) ctlv_output_real(&status, &handle, id.data(), static_cast<std::int32_t>(id.size()), out.data(), &n);
    return out;
  }
  std::vector<int> integers(std::string_view id)
  {
    std::int32_t n = 0;
    ctlv_output_integer(&status, &handle, id.data(), static_cast<std::int32_t>(id.size()), nullptr, &n);
    std::vector<std::int32_t> out(static_cast<std::size_t>(n > 0 ? n : 0));
    if (n > 0) ctlv_output_integer(&status, &handle, id.data(), static_cast<std::int32_t>(id.size()), out.data(), &n);
    return {out.begin(), out.end()};
  }
  double real(std::string_view id)
  {
    double x = 0.0;
    ctlv_output_real_scalar(&status, &handle, id.data(), static_cast<std::int32_t>(id.size()), &x);
    return x;
  }
  int integer(std::string_view id)
  {
    std::int32_t x = -1;
    ctlv_output_integer_scalar(&status, &handle, id.data(), static_cast<std::int32_t>(id.size()), &x);
    return x;
  }
  std::string json(std::string_view id)
  {
    std::int32_t n = 0;
    ctlv_output_json(&status, &handle, id.data(), static_cast<std::int32_t>(id.size()), nullptr, &n);
    std::string out(static_cast<std::size_t>(n > 0 ? n : 0), '\0');
    if (n > 0) ctlv_output_json(&status, &handle, id.data(), static_cast<std::int32_t>(id.size()), out.data(), &n);
    if (!out.empty()) out.pop_back();
    return out;
  }
  std::string errors() { return json("ERROR_INFORMATION"); }
  void monitor(ctlv_monitor_function f)
  {
    ctlv_register_function(&status, &handle, f, "MONITOR_FUNCTION", 16);
  }

  void* handle = nullptr;
  std::int32_t status = 0;
};

/// The entry of a dataset in a request: factors with their level counts (0: a variate), column-major.
inline std::string dataset(const std::string& name, std::size_t records, const std::vector<std::pair<std::string, int>>& variables)
{
  std::string text = "{\"name\":\"" + name + "\",\"number_of_observations\":" + std::to_string(records) +
                     ",\"storage_order\":\"so_column_major\",\"variables\":[";
  for (std::size_t i = 0; i < variables.size(); ++i) {
    text += (i ? ",{\"name\":\"" : "{\"name\":\"") + variables[i].first + "\"";
    if (variables[i].second > 0) {
      text += ",\"field_type\":\"vt_integer_factor_1_to_n\",\"number_of_levels\":" + std::to_string(variables[i].second);
    }
    text += "}";
  }
  return text + "]}";
}

}  // namespace tolvan_test
