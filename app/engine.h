// The engine as the driver calls it: one handle and its exports, in terms of the standard library.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tolvan/tolvan_api.h"

namespace tolvan::driver {

class Engine {
 public:
  explicit Engine(std::string_view kind);  // see status() for how it went
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  std::int32_t status() const { return status_; }  // of the last call

  void input_info(std::string_view json);
  void input_real_2d(std::string_view name, const std::vector<double>& values, std::int32_t rows,
                     std::int32_t columns);
  void register_monitor(ctlv_monitor_function function);
  void process(std::string_view json);

  // Outputs; an absent one is nothing.
  std::optional<std::string> json(std::string_view id);
  std::optional<double> real(std::string_view id);
  std::optional<std::int32_t> integer(std::string_view id);
  std::vector<double> reals(std::string_view id);
  std::vector<std::int32_t> integers(std::string_view id);
  std::vector<std::string> strings(const std::string& table, const std::string& column);
  std::string scalar_text(const std::string& id);  // of a string scalar
  std::string table_title(const std::string& table);  // the first one; empty for none

 private:
  std::int32_t status_ = 0;
  void* handle_ = nullptr;
};

}  // namespace tolvan::driver
